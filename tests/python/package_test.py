"""The package against a real daemon, and services of Python and of C++."""

import asyncio
import datetime
import itertools
import os
import pickle
import signal
import sys
import threading
import time
import unittest

import kvxmom
from kvxmom import aio
from support import BIN, BusTest, Program

ODD = """
import kvxmom
class Unspeakable(Exception):
    def __str__(self):
        raise RuntimeError
asked = []
with kvxmom.Service("Odd") as service:
    @service.on_query
    def answer(question):
        asked.append(question)
        if question.text == "unspeakable":
            raise Unspeakable
        if question.text == "late":
            asked[-2].as_of((1, 1))
        if question.text == "refuse":
            raise kvxmom.Refused("not here", position=3)
        if question.text == "fault":
            {}["no such"]
        if question.text == "value":
            return [{"a": 2**70}]
        return rows(question)
    def rows(question):
        try:
            for i in range(int(question.text)):
                yield {"i": i, "bytes": b"\\0\\xff", "text": "\\udcff"}
        finally:
            print("closed", flush=True)
    service.on_role(lambda active: print("active", active, flush=True))
    service.run()
"""


def interrupt_after(seconds):
    timer = threading.Timer(seconds, os.kill, (os.getpid(), signal.SIGINT))
    timer.start()


class Questions(BusTest):
    def setUp(self):
        super().setUp()
        self.service = self.python(ODD)
        self.service.await_line("active True")

    def test_rows_come_whole_and_failures_carry_code_and_text(self):
        with kvxmom.Client() as client:
            rows = client.query("Odd", "1234").all()
            self.assertEqual([row["i"] for row in rows], list(range(1234)))
            self.assertEqual(rows[7], {"i": 7, "bytes": b"\0\xff", "text": "\udcff"})
            self.assertEqual(client.query("Odd", "3").columns()["i"], [0, 1, 2])
            self.assertEqual(client.query("Odd", "0").all(), [])
            with self.assertRaises(kvxmom.Refused) as refused:
                client.query("Odd", "refuse").all()
            self.assertEqual(refused.exception.code, kvxmom.Code.REFUSED)
            self.assertEqual(refused.exception.text, "not here")
            self.assertEqual(refused.exception.rows[0]["position"], 3)
            with self.assertRaisesRegex(kvxmom.Refused, "KeyError: 'no such'"):
                client.query("Odd", "fault").all()
            for text, why in (("unspeakable", "Unspeakable: $"), ("late", "Ended: .* answered"),
                              ("value", "ValueError: row: field 'a'")):
                with self.assertRaisesRegex(kvxmom.Refused, why):
                    client.query("Odd", text).all()
            again = pickle.loads(pickle.dumps(refused.exception))
            self.assertEqual((str(again), again.rows), (str(refused.exception), again.rows))
            with self.assertRaisesRegex(TimeoutError, "query Nobody: timed out"):
                client.query("Nobody", "", timeout=0.2).all()
            with self.assertRaises(kvxmom.Busy):
                kvxmom.Service("Second")
        self.service.await_line("Traceback")  # of the fault, for who runs the service

    def test_leaving_an_answer_or_cancelling_its_task_ends_it_at_the_service(self):
        endless = "1000000000"
        with kvxmom.Client() as client:
            self.assertEqual(len(list(itertools.islice(client.query("Odd", endless), 250))), 250)
            self.service.await_line("closed")
            self.service.said = ""
            rows = client.query("Odd", endless)
            interrupt_after(0.3)
            with self.assertRaises(KeyboardInterrupt):
                for _ in rows:
                    pass
            self.service.await_line("closed")
            rows = client.query("Odd", endless)
            next(rows)
            rows.cancel()
            with self.assertRaises(kvxmom.Ended):
                next(rows)

        async def cancel():
            async with aio.Client() as client:
                async def read():
                    async for _ in client.query("Odd", endless):
                        pass
                with self.assertRaises(asyncio.TimeoutError):
                    await asyncio.wait_for(read(), 0.3)

        self.service.said = ""
        asyncio.run(cancel())
        self.service.await_line("closed")

    def test_sigint_and_sigterm_end_a_service_in_order(self):
        self.service.process.send_signal(signal.SIGINT)
        self.assertEqual(self.service.wait(), -signal.SIGINT)
        self.assertIn("KeyboardInterrupt", self.service.said)
        second = self.python(ODD)
        second.await_line("active True")
        second.process.terminate()
        self.assertEqual(second.wait(), 0)


class Messages(BusTest):
    def test_types_survive_exactly(self):
        when = datetime.datetime(1969, 7, 20, 20, 17, 40, 5, tzinfo=datetime.timezone.utc)
        fields = [
            kvxmom.Field("a", -8, "i8"), kvxmom.Field("b", 2**64 - 1, "u64"),
            kvxmom.Field("c", 0.5, "f32"), kvxmom.Field("d", "10.0.0.1", "ip"),
            kvxmom.Field("e", 7500, "port"), kvxmom.Field("f", "NEWS.UK", "subject"),
            kvxmom.Field("g", when, "datetime"), kvxmom.Field("h", b"\0", "bytes"),
            kvxmom.Field("i", True, "bool"), kvxmom.Field("j", "é", "str"),
            kvxmom.Field("k", kvxmom.Message(x=1), "message"), kvxmom.Field("a", 1, "i64"),
        ]  # fmt: skip
        with kvxmom.Client(daemon=self.address) as client, client.listen("T.>") as heard:
            client.send("T.A", fields)
            delivery = heard.take(10)
            self.assertEqual(delivery.subject, "T.A")
            self.assertEqual(delivery.message.fields(), fields)
            self.assertEqual(delivery.message["k.x"], 1)
            self.assertEqual(delivery.message, kvxmom.Message(fields))
            self.assertNotIn("z", delivery.message)
            for wrong, names in (
                (lambda: client.query(3, "x"), "service"),
                (lambda: client.send("A", {"x": {1}}), "message: field 'x'"),
                (lambda: client.send("A", [1]), "message"),
                (lambda: client.listen("A", 3), "function"),
                (lambda: client.query("A", "x", timeout="1"), "timeout"),
                (lambda: client.send("A", {1: 2}), "message"),
            ):
                with self.assertRaisesRegex(TypeError, names):
                    wrong()
            deep = kvxmom.Message(x=1)
            for _ in range(32):
                deep = kvxmom.Message(x=deep)
            client.send("T.A", deep)
            self.assertIn("{'x': 1}", repr(heard.take(10).message))
            for wrong in (kvxmom.Field("n", 300, "u8"), ("n", 2**64), ("n", "a\0b"), ("n", deep),
                          ("n", 1e39, "f32"), ("n", 10**400, "f64"), ("n", when.replace(year=1833))):
                with self.assertRaisesRegex(ValueError, "'n'"):
                    client.send("A", [wrong])

    def test_callbacks_may_raise_and_may_not_wait(self):
        told = []
        hook, sys.unraisablehook = sys.unraisablehook, lambda one: told.append(one.exc_value)
        self.addCleanup(setattr, sys, "unraisablehook", hook)
        with kvxmom.Client() as client:
            def received(_):
                client.send("DONE", {})
                client.request("NOBODY")
            with client.listen("DONE") as done, client.listen("GO", received):
                client.send("GO", {})
                done.take(10)
                client.send("GO", {})  # it still hears
                done.take(10)
        self.assertEqual([type(one) for one in told], [kvxmom.InvalidArgument] * 2)

    def interrupt(self, *waits):
        for wait in waits:
            counted = itertools.count()
            working = threading.Event()
            counter = threading.Thread(
                target=lambda: [next(counted) for _ in iter(working.is_set, True)])
            counter.start()
            interrupt_after(0.3)
            begun = time.monotonic()
            with self.assertRaises(KeyboardInterrupt):
                wait()
            self.assertLess(time.monotonic() - begun, 5)
            working.set()
            counter.join()
            self.assertGreater(next(counted), 1000)

    def test_waits_end_by_ctrl_c_and_leave_the_interpreter_to_others(self):
        with kvxmom.Client() as client:
            self.interrupt(
                lambda: client.request("NOBODY"),
                lambda: next(client.listen("NOBODY")),
                lambda: client.follow("Nobody", "", timeout=60).take(),
                lambda: client.query("Nobody", "").all())
        with kvxmom.Service("Held") as service:
            service.changes.set_key(["a"])
            active, held, let_go = threading.Event(), threading.Event(), threading.Event()
            service.on_role(lambda is_active: is_active and active.set())
            running = threading.Thread(target=service.run)
            running.start()
            self.assertTrue(active.wait(30))
            one = kvxmom.Change("inserted", {"a": 1})
            changes = service.changes

            def hold():
                with self.assertRaisesRegex(kvxmom.InvalidArgument, "called by a function of"):
                    changes.read(lambda: None)
                held.set()
                let_go.wait(60)
            holder = threading.Thread(target=changes.commit, args=(one, hold))
            holder.start()
            held.wait(30)
            self.interrupt(lambda: changes.commit(one), lambda: changes.read(lambda: None))
            let_go.set()
            holder.join()
            with self.assertRaisesRegex(kvxmom.InvalidArgument, "given before"):
                service.on_query(print)
            service.post(service.close)  # in a function of its own
            running.join()

    def test_threads_share_a_subscription(self):
        taken, ended = [], []
        with kvxmom.Client() as client:
            heard = client.listen("A")

            takers = [threading.Thread(target=lambda: ended.append(taken.extend(heard)))
                      for _ in range(3)]
            for taker in takers:
                taker.start()
            for number in range(300):
                client.send("A", {"n": number})
            until = time.monotonic() + 30
            while len(taken) < 300 and time.monotonic() < until:
                self.assertEqual(ended, [])
                time.sleep(0.01)
        for taker in takers:
            taker.join()
        self.assertEqual(sorted(one.message["n"] for one in taken), list(range(300)))

    def test_a_lost_daemon_and_a_fork_are_told(self):
        states = []
        with kvxmom.Client(on_connection=lambda now: states.append(now.is_there)) as client:
            child = os.fork()
            if child == 0:
                try:
                    client.query("Nobody", "").all()
                except kvxmom.InvalidArgument as error:
                    os._exit(7 if "forked" in str(error) else 1)
                os._exit(1)
            self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 7)
            left = client.query("Nobody", "")
            interrupted = threading.Timer(0.3, self.daemon.process.kill)
            interrupted.start()
            with self.assertRaises(kvxmom.Lost):
                client.request("NOBODY", {}, timeout=20)
            with self.assertRaises(ConnectionError):
                client.send("A", {})
        with self.assertRaises(kvxmom.NoDaemon):
            kvxmom.Client(daemon=self.address)
        self.assertEqual(states, [False])
        child = os.fork()
        if child == 0:
            del left
            os._exit(8)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 8)

    def test_an_interpreter_ends_with_all_still_open(self):
        spins = ("spins = threading.Event()\n"
                 "def spin(_):\n"
                 "    spins.set()\n"
                 "    while True: pass\n"
                 "again = client.listen('C', spin)\n"
                 "client.send('C', {})\n"
                 "spins.wait()\n")
        for rest in ("", spins, spins + "raise SystemExit(3)\n"):
            program = self.python(
                "import kvxmom, threading\n"
                "client = kvxmom.Client()\n"
                "heard = client.listen('A', print)\n"
                "waiting = client.listen('B')\n"
                "threading.Thread(target=lambda: next(waiting), daemon=True).start()\n" + rest)
            self.assertEqual(program.wait(), 3 if "Exit" in rest else 0, program.said)


class Asynchronous(BusTest):
    def test_a_service_and_its_client_live_in_their_loops(self):
        service = self.python(
            "import asyncio\n"
            "from kvxmom import aio, Change\n"
            "async def main():\n"
            "    counts, ticks = {}, []\n"
            "    service = aio.Service('Counts')\n"
            "    service.number_changes(['name'])\n"
            "    @service.on_query\n"
            "    async def answer(question):\n"
            "        stamp, now = service.changes.read(lambda: dict(counts))\n"
            "        question.as_of(stamp)\n"
            "        for name, count in now.items():\n"
            "            await asyncio.sleep(0)\n"
            "            yield {'name': name, 'count': count}\n"
            "    @service.on_message('COUNT')\n"
            "    async def count(message):\n"
            "        name = message['name']\n"
            "        row = {'name': name, 'count': counts.get(name, 0) + 1}\n"
            "        kind = 'changed' if name in counts else 'inserted'\n"
            "        service.changes.commit(Change(kind, row), lambda: counts.update({name: row['count']}))\n"
            "        if name == 'end': service.stop()\n"
            "    @service.every(0.1)\n"
            "    async def tick():\n"
            "        await asyncio.sleep(0)\n"
            "        ticks.append(1)\n"
            "        if len(ticks) == 3: print('ticked', flush=True)\n"
            "    async with service:\n"
            "        print('ready', flush=True)\n"
            "        await service.wait()\n"
            "asyncio.run(main())\n")
        service.await_line("ready")
        client = aio.Client()

        async def main():
            async with client:
                subject = client.in_domain("COUNT")
                async with client.follow("Counts", "*") as changes, client.snoop("Counts") as told:
                    for number in range(1, 4):
                        await client.send(subject, {"name": "a"})
                        change = await changes.take(10)
                        self.assertEqual(dict(change.row), {"name": "a", "count": number})
                    self.assertEqual((await told.take(10))["@change"], "inserted")
                answers = await asyncio.gather(
                    *(client.query("Counts", "*").all() for _ in range(20)))
                self.assertEqual(answers, [[{"name": "a", "count": 3}]] * 20)
                with self.assertRaises(kvxmom.TimedOut):
                    await client.request("NOBODY", timeout=0.2)
                heard = await client.listen("A")
                takers = [asyncio.ensure_future(heard.take(10)) for _ in range(3)]
                for _ in takers:
                    await client.send("A", {})
                await asyncio.gather(*takers)

        async def end():
            async with client:  # again, in another loop
                await client.send(client.in_domain("COUNT"), {"name": "end"})

        asyncio.run(main())
        service.await_line("ticked")
        asyncio.run(end())
        self.assertEqual(service.wait(), 0, service.said)


class Examples(BusTest):
    def test_each_does_what_it_says(self):
        first = self.example("service.py")
        first.await_line("active")
        query = self.example("query.py", "Links", "core-1")
        self.assertEqual((query.wait(), query.said), (0, "core-1\tup\n"))
        refused = self.example("query.py", "Links", "x")
        self.assertEqual(refused.wait(), 1)
        self.assertIn("refused: no link is named x", refused.said)
        follow = self.example("follow.py", "Links", "*", "3")
        follow.await_line("row edge-1 down")
        several = self.example("asynchronous.py", "core-1", "edge-1")
        self.assertEqual(several.wait(), 0, several.said)
        self.assertIn("changed {'name': 'core-1', 'state': 'maintenance'}", several.said)
        self.assertEqual(follow.wait(), 0)
        self.assertIn("changed core-1 maintenance", follow.said)
        listen = self.example("listen.py", "NEWS.>", "1")
        listen.await_line("listening")
        self.assertEqual(Program(self, f"{BIN}/kvx", "send", "NEWS.A", "n:u16=5").wait(), 0)
        self.assertEqual(listen.wait(), 0)
        self.assertIn("NEWS.A n:u16=5", listen.said)

    def test_query_reads_a_service_of_another_language(self):
        table = os.path.join(os.environ["KVX_HOME"], "links.csv")
        with open(table, "w", encoding="ascii") as file:
            file.write("name,state\ncore-1,up\nedge-1,down\n")
        model = Program(self, f"{BIN}/modeld", "--db", table + ".db", "--table", "links",
                        "--load", table, "--standalone")
        model.await_line("answering")
        query = self.example("query.py", "Model", "select state from links where name = 'edge-1'")
        self.assertEqual((query.wait(), query.said), (0, "down\n"))


if __name__ == "__main__":
    unittest.main()
