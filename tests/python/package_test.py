"""The package against a real daemon, and services of Python and of C++."""

import asyncio
import datetime
import itertools
import os
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
with kvxmom.Service("Odd") as service:
    @service.on_query
    def answer(question):
        if question.text == "refuse":
            raise kvxmom.Refused("not here", position=3)
        if question.text == "fault":
            {}["no such"]
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
            rows.cancel()
            self.service.await_line("closed")

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
            for wrong in (kvxmom.Field("n", 300, "u8"), ("n", 2**64), ("n", "a\0b")):
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

    def test_waits_end_by_ctrl_c_and_leave_the_interpreter_to_others(self):
        with kvxmom.Client() as client:
            for wait in (
                lambda: client.request("NOBODY"),
                lambda: next(client.listen("NOBODY")),
                lambda: client.query("Nobody", "").all(),
            ):
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
            interrupted = threading.Timer(0.3, self.daemon.process.kill)
            interrupted.start()
            with self.assertRaises(kvxmom.Lost):
                client.request("NOBODY", {}, timeout=20)
            with self.assertRaises(ConnectionError):
                client.send("A", {})
        with self.assertRaises(kvxmom.NoDaemon):
            kvxmom.Client(daemon=self.address)
        self.assertEqual(states, [False])

    def test_an_interpreter_ends_with_all_still_open(self):
        for rest in ("", "raise SystemExit(3)\n"):
            program = self.python(
                "import kvxmom, threading\n"
                "client = kvxmom.Client()\n"
                "heard = client.listen('A', print)\n"
                "waiting = client.listen('B')\n"
                "threading.Thread(target=lambda: next(waiting), daemon=True).start()\n" + rest)
            self.assertEqual(program.wait(), 3 if rest else 0, program.said)


class Asynchronous(BusTest):
    def test_a_service_and_its_client_live_in_their_loops(self):
        service = self.python(
            "import asyncio\n"
            "from kvxmom import aio, Change\n"
            "async def main():\n"
            "    counts = {}\n"
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
            "    async with service:\n"
            "        print('ready', flush=True)\n"
            "        await service.wait()\n"
            "asyncio.run(main())\n")
        service.await_line("ready")

        async def main():
            async with aio.Client() as client:
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
                await client.send(subject, {"name": "end"})

        asyncio.run(main())
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
