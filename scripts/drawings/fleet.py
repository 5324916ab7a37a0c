# SPDX-License-Identifier: Apache-2.0
"""Drawings of the fleet and of deliveries."""

from pen import Drawing


def fleet():
    d = Drawing("How a fleet works",
                "A sender puts jobs into a queue of NATS servers; workers take jobs, renew leases, write states "
                "and events; each job has a zelta-record.", 520)
    d.box(90, 12, 220, "zelta-fleet, or your program")
    d.frame(10, 78, 380, 236, "NATS servers: one, or three that keep everything")
    rows = [("zelta_jobs", "the queue, by label", "down"), ("zelta_recordings", "states, by id", "up"),
            ("zelta_events", "what came to it, a week", "up"), ("zelta_workers", "reports: who has room", "up"),
            ("zelta_wishes", "what is wished of a job", "down"), ("commands", "passed on, not kept", "both")]
    for at, (name, what, way) in enumerate(rows):
        y = 102 + at * 34
        d.bar(30, y, 340, 28, "ours" if name != "commands" else "box")
        d.text(38, y + 18, name, "title")
        d.text(186, y + 18, what)
        x = {"down": 356, "up": 356, "both": 356}[way]
        tips = ((x, y + 5), (x, y + 23))
        d.arrow(*(tips if way == "down" else tips[::-1]), both=way == "both")
    d.arrow((150, 40), (150, 78))
    d.text(144, 64, "jobs, commands", "note", "end")
    d.arrow((250, 78), (250, 40))
    d.text(256, 64, "states, events, reports", "note")
    d.arrow((150, 314), (150, 366))
    d.text(144, 340, "one job at a time,", "note", "end")
    d.text(144, 355, "while it has room", "note", "end")
    d.arrow((250, 366), (250, 314))
    d.text(256, 340, "leases renewed 5 times", "note")
    d.text(256, 355, "a lease; states, events", "note")
    d.frame(10, 366, 380, 146, "a machine that records, one of many")
    d.box(70, 388, 260, "zelta-worker", "knows of no other worker", kind="ours")
    d.box(22, 462, 110, "zelta-record", kind="good")
    d.box(145, 462, 110, "zelta-record", kind="good")
    d.box(268, 462, 110, "zelta-record", kind="good")
    for x, tip in ((110, 77), (200, 200), (290, 323)):
        d.arrow((x, 432), (tip, 462), both=True)
    d.text(200, 506, "one a job, with the lease; each writes its folder", "note", "middle")
    return d


def worker():
    d = Drawing("A worker of the fleet",
                "Threads and parts of zelta-worker: queue readers, the loop with its recordings, the state "
                "writer, renewals and commands of NATS.", 330)
    d.box(12, 14, 150, "queue reader", "a thread a label", kind="box")
    d.box(238, 14, 150, "state writer", "a thread", kind="box")
    d.frame(12, 92, 376, 134, "")
    d.text(380, 218, "the loop: waits for nobody", "note", "end")
    d.box(24, 116, 128, "worker", "a recording a job", kind="ours")
    d.box(248, 116, 128, "room", "load_meter", kind="ours")
    d.box(24, 186, 128, "recorder_child", kind="ours")
    d.arrow((88, 160), (88, 186))
    d.arrow((152, 138), (248, 138), both=True)
    d.text(200, 132, "takes more?", "note", "middle")
    d.arrow((60, 58), (60, 116))
    d.text(66, 80, "job", "note")
    d.arrow((130, 116), (130, 76), (290, 76), (290, 58))
    d.text(210, 71, "states, events", "note", "middle")
    d.arrow((340, 58), (340, 106), (140, 106), (140, 116))
    d.text(334, 88, "kept, outdated", "note", "end")
    d.box(24, 276, 128, "zelta-record", kind="good")
    d.arrow((88, 214), (88, 276), both=True)
    d.text(96, 248, "renew, leave;", "note")
    d.text(96, 262, "its events", "note")
    d.box(238, 254, 150, "NATS' threads", "renewals, commands", kind="box")
    d.arrow((250, 254), (250, 174), (130, 174), (130, 160))
    d.text(256, 188, "renewed, asked", "note")
    return d


def handover():
    d = Drawing("What a crash costs in a fleet",
                "Three timelines with a lease of five seconds: a worker is killed, its machine is switched off, "
                "a worker is drained with handover.", 610)
    zero, five, nine, end = 110, 220, 308, 386

    def panel(y, title, rows, notes):
        d.text(12, y, title, "title")
        bottom = y + 10 + len(rows) * 34
        d.arrow((zero - 8, bottom + 2), (388, bottom + 2))
        for x, says in notes:
            d.line((x, y + 6), (x, bottom + 6), rare=True)
            d.text(x, bottom + 18, says, "note", "middle")
        for at, (label, bars) in enumerate(rows):
            top = y + 10 + at * 34
            d.text(12, top + 18, label)
            for x, to, kind, says in bars:
                d.bar(x, top, to - x, 26, kind)
                d.text(x + 5, top + 17, says, "note", room=to - x - 4)

    panel(26, "A worker is killed: its recorder goes on",
          [("worker A", []), ("A's recorder", [(zero - 8, nine, "good", "records on, 1.8 leases at most")]),
           ("the lease", [(zero, five, "warn", "A's, not renewed")]),
           ("worker B", [(five, end, "ours", "has the job, records")])],
          [(zero, "killed"), (five, "5 s"), (nine, "9 s")])
    d.bar(zero - 8, 36, 8, 26, "bad")
    d.text(zero + 6, 53, "gone", "note")
    d.text(12, 212, "Between 5 s and 9 s both record: what both have", "note")
    d.text(12, 227, "is there twice, in two folders, and nothing is overwritten.", "note")
    panel(262, "A machine is switched off: about a lease is lost",
          [("machine A", []), ("the lease", [(zero, five, "warn", "not renewed")]),
           ("worker B", [(five, end, "ours", "has the job, records")])],
          [(zero, "off"), (five, "5 s")])
    d.bar(zero - 8, 272, 8, 26, "bad")
    d.text(zero + 6, 289, "its files stay there", "note")
    panel(430, "A worker hands over: 46 to 76 ms",
          [("worker A", [(zero - 8, 196, "good", "recorders end")]), ("worker B", [(200, end, "ours", "goes on")])],
          [(198, "drain --handover")])
    d.text(12, 556, "Each worker's files are a stretch: a folder on its machine.", "note")
    d.text(12, 572, "The second stretch's manifest is recording_2.json, so that all", "note")
    d.text(12, 588, "stretches can be put into one folder and seen as one.", "note")
    return d


def delivery():
    d = Drawing("How a file is delivered",
                "From pending by sending and sent to confirmed, with what is asked before and after, what is "
                "tried again, and what becomes a dead letter.", 600)
    y = d.box(60, 12, 220, "the recorder closes a file", "recording.json: bytes, crc32", kind="box")
    d.box(60, 80, 220, "pending", kind="ours")
    d.arrow((170, y), (170, 80))
    d.box(60, 132, 220, None, "read once: are its bytes and crc32", "those of the manifest?", kind="warn")
    d.arrow((170, 108), (170, 132))
    d.box(60, 200, 220, None, "the target is asked:", "does it have the file already?", kind="warn")
    d.arrow((170, 176), (170, 200))
    d.text(176, 192, "yes", "note")
    d.box(60, 274, 220, "sending", "replaces nothing of another's", kind="ours")
    d.arrow((170, 244), (170, 274))
    d.text(176, 262, "no", "note")
    d.box(60, 348, 220, "sent", "the target said that it took it", kind="ours")
    d.arrow((170, 318), (170, 348))
    d.box(60, 418, 220, None, "the target is asked again: size,", "S3: checksum; or it is read back", kind="warn")
    d.arrow((170, 392), (170, 418))
    d.box(60, 496, 220, "confirmed", kind="good")
    d.arrow((170, 462), (170, 496))
    d.text(176, 482, "it has it", "note")
    d.arrow((60, 222), (36, 222), (36, 510), (60, 510))
    d.text(30, 360, "yes", "note", "end")
    d.box(306, 132, 84, "dead", "told, kept,", "--retry-", "dead", kind="bad", h=76)
    d.arrow((280, 154), (306, 154))
    d.text(286, 148, "no", "note")
    d.box(306, 262, 84, None, "fails: again", "after 1, 2,", "4 … s, for", "as long as", "it takes", kind="box", h=92)
    d.arrow((280, 296), (306, 296), both=True)
    d.arrow((348, 262), (348, 208), rare=True)
    d.text(342, 240, "refused", "note", "end")
    d.text(342, 254, "5 times", "note", "end")
    d.text(12, 548, "Deleted here only if keep says so: when every target has", "note")
    d.text(12, 563, "confirmed it, hooks have run, and its time is over.", "note")
    d.text(12, 582, "What was done stands in delivery.json: a kill loses nothing.", "note")
    return d


DRAWINGS = {"fleet": fleet, "worker": worker, "handover": handover, "delivery": delivery}
