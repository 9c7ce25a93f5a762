import kvxmom

with kvxmom.Client() as client:
    for row in client.query("Links", "*"):
        print(row["name"], row["state"])
    for change in client.follow("Links", "*"):
        print(change.kind, *change.row.values(), flush=True)
