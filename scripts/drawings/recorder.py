# SPDX-License-Identifier: Apache-2.0
"""Drawings of the engine, the recorder and what they leave."""

from pen import Drawing


def overview():
    d = Drawing("Engine, recorder, pipes and files",
                "An application holds the engine library, which starts a recorder process and talks to it "
                "by two pipes. The recorder takes users from a channel and writes the files.", 560)
    d.frame(10, 10, 380, 218, "your process")
    d.box(22, 34, 170, "your program", "makes one engine", "a recording")
    d.box(208, 34, 170, "its event handler", "is told what happens,", "gets frames if it asks")
    d.frame(22, 124, 356, 94, "libzelta_recording")
    d.box(32, 146, 166, "RecordingEngineImpl", "checks, folder,", "command line", kind="ours")
    d.box(226, 146, 142, "pipe_router", "starts, feeds and", "ends the recorder", kind="ours")
    d.arrow((107, 94), (107, 146))
    d.text(102, 113, "calls", "note", "end")
    d.arrow((186, 146), (186, 108), (293, 108), (293, 94))
    d.text(300, 115, "callbacks", "note")
    d.arrow((198, 174), (226, 174), both=True)
    d.arrow((270, 206), (270, 296))
    d.arrow((326, 296), (326, 206))
    d.text(264, 250, "a pipe: commands", "note", "end")
    for at, text in enumerate(("a pipe:", "events,", "frames")):
        d.text(333, 240 + at * 14, text, "note")
    d.frame(10, 274, 380, 188, "ZeltaCoreService, a process of its own")
    d.box(226, 296, 152, "link and commands", kind="ours")
    d.box(22, 346, 100, "channel", "test · dir", "whip · janus", kind="ours", h=62)
    d.box(146, 346, 104, "session", "who is let in,", "who is here", kind="ours", h=62)
    d.box(274, 346, 104, "users, mix", "consumers of", "their media", kind="ours", h=62)
    d.arrow((122, 377), (146, 377))
    d.arrow((250, 377), (274, 377))
    d.arrow((302, 324), (302, 334), (198, 334), (198, 346), both=True)
    d.box(226, 424, 152, "file writer", kind="ours")
    d.arrow((326, 408), (326, 424))
    d.box(22, 486, 170, "users of the channel", "browsers, RTP, files,", "a gateway's room")
    d.arrow((72, 486), (72, 408))
    d.box(226, 486, 152, "recording folder", "a file a user, and", "recording.json", kind="good")
    d.arrow((302, 452), (302, 486))
    return d


def session():
    d = Drawing("A session's life and its events",
                "From createZeltaRecordingEngine to release: which callbacks come in between, what happens "
                "when the recorder dies, and every other way to the end.", 656)
    d.text(70, 24, "your thread", "title", "middle")
    d.text(270, 24, "the engine's thread: callbacks", "title", "middle")
    d.line((70, 32), (70, 640))
    d.box(8, 38, 132, None, "createZelta-", "RecordingEngine()", kind="ours")
    d.box(8, 94, 132, "joinChannel()", "0: it was started", kind="ours")
    d.arrow((140, 116), (164, 116), (164, 144))
    d.text(176, 112, "the recorder starts, and joins", "note")
    y = d.box(152, 144, 240, "onJoinChannelSuccess", kind="good")
    y = d.box(152, y + 8, 240, "onUserJoined", "a user is in the channel", kind="good")
    y = d.box(152, y + 8, 240, "onFirstRemoteAudioFrame", "onFirstRemoteVideoDecoded", kind="good")
    y = d.box(152, y + 8, 240, "onUserOffline", "a user has left", kind="good")
    y = d.box(152, y + 14, 240, "onWarning(108)", "the recorder had died and was", "started again: 3 times at most", kind="warn")
    y = d.box(152, y + 8, 240, "onError(2, 1)", "something of one user's can't be", "recorded; the others' is", kind="warn")
    d.box(8, 300, 132, "commands", "layout, background,", "start, stop", kind="ours")
    y = d.box(152, y + 14, 240, "onLeaveChannel(bits)", "2 a signal, 4 nobody was there:", "files are complete. 8: no disk", kind="bad")
    y = d.box(152, y + 8, 240, "onError(1, …), onError(3, …)", "couldn't join or go on;", "the recorder is gone for good", kind="bad")
    d.box(8, 512, 132, "leaveChannel()", "no callback after it", kind="ours")
    d.arrow((152, y - 28), (146, y - 28), (146, 534), (140, 534))
    d.line((152, 510), (146, 510), (146, 534))
    d.box(8, 572, 132, "release()", "files are complete", kind="ours")
    d.text(152, 626, "who calls leaveChannel first is told", "note")
    d.text(152, 642, "nothing more: no onLeaveChannel comes", "note")
    return d


def rooms():
    d = Drawing("The recorder's rooms",
                "Users come from the channel by admission to the roster; each has consumers. The engine's "
                "commands go to the roster and the ending, and events go back by the event port.", 250)
    d.box(12, 14, 84, "channel", kind="box")
    d.box(122, 14, 100, "admission", kind="ours")
    d.box(250, 14, 138, "roster", "users, and their mix", kind="ours")
    d.arrow((96, 28), (122, 28))
    d.arrow((222, 28), (250, 28))
    d.box(250, 96, 138, "user", kind="ours")
    d.arrow((319, 58), (319, 96))
    d.box(180, 154, 208, "consumers", "files · stills · frames", "mix · volume", kind="good")
    d.arrow((319, 124), (319, 154))
    d.box(12, 76, 84, "engine", kind="box")
    d.box(122, 76, 100, "commands", kind="ours")
    d.arrow((96, 84), (122, 84))
    d.arrow((222, 82), (236, 82), (236, 46), (250, 46))
    d.box(122, 118, 100, "ending", kind="ours", h=26)
    d.arrow((172, 104), (172, 118))
    d.box(12, 190, 120, "event port", "events out", kind="ours")
    d.arrow((140, 144), (140, 172), (100, 172), (100, 190))
    d.arrow((54, 190), (54, 104))
    d.arrow((180, 212), (132, 212))
    return d


def packet():
    d = Drawing("A packet's way from the socket to the file",
                "The kernel stamps a packet; the packet thread orders it and makes units; the loop gives units to "
                "a user's consumers; the file writer's thread writes fragments of a fifth of a second.", 682)
    d.band(8, 62, "kernel")
    d.box(150, 16, 238, "socket", "room for seconds; a stamp each", kind="box")
    d.band(76, 206, "packet thread")
    y = d.box(150, 84, 238, "line, stream", "SRTP opened; put in order: what is", "missing is waited for 0.4 s", kind="ours")
    y2 = d.box(150, y + 14, 238, "sender clock", "a time on the one timeline: by", "arrival, then by sender reports", kind="ours")
    y3 = d.box(150, y2 + 14, 238, "depayload", "units: a picture, a packet of sound", kind="ours")
    d.arrow((269, 60), (269, 84))
    d.arrow((269, y), (269, y + 14))
    d.arrow((269, y2), (269, y2 + 14))
    d.band(288, 236, "the loop")
    m = d.box(150, 296, 238, "unit mailbox", "bounded: when it is full the", "packet thread stops reading", kind="warn")
    d.arrow((269, y3), (269, 296))
    u = d.box(150, m + 14, 238, "user", kind="ours")
    d.arrow((269, m), (269, u - 28))
    d.box(14, m + 14, 118, "decoders", kind="ours")
    d.arrow((150, m + 28), (132, m + 28))
    d.box(14, u + 32, 118, None, "mix · frames", "stills · volume", kind="good")
    d.arrow((73, u), (73, u + 32))
    d.text(80, u + 20, "if wanted", "note")
    f = d.box(150, u + 14, 238, "files consumer, file series", "which file; H.264 and Opus as they", "came, other sound encoded", kind="ours")
    d.arrow((269, u), (269, u + 14))
    x = d.box(150, f + 14, 238, "media file: the muxer", kind="ours")
    d.arrow((269, f), (269, f + 14))
    d.band(x + 12, 52, "file writer's thread")
    d.box(150, x + 20, 238, "writes all media files", kind="ours")
    d.arrow((269, x), (269, x + 20))
    d.box(150, x + 78, 238, "UID_….mp4", "in fragments of 0.2 s: a killed", "recorder loses the last one", kind="good")
    d.arrow((269, x + 48), (269, x + 78))
    return d


def folder():
    d = Drawing("A recording's folder",
                "The files of a recording folder, what each is for, and how the manifest lays them on one clock.", 520)
    d.frame(10, 10, 380, 336, "recordings/20260131/meeting_120000_123456789/")
    rows = [("good", "1_20260131T120000123.mp4", "user 1: picture and sound"),
            ("good", "1_20260131T120002500.mp4", "user 1 goes on: a larger picture"),
            ("good", "2_20260131T120001000.mp4", "user 2, who came a second later"),
            ("ours", "recording.json", "the manifest: files, times, what is missing"),
            ("ours", "volumes.jsonl", "how loud users were, if it is known"),
            ("ours", "messages.jsonl", "what users wrote, if they did"),
            ("ours", "recording_engine.log", "the log"),
            ("warn", "journal.json", "only while it is recorded, or after a death")]
    for at, (kind, name, what) in enumerate(rows):
        d.bar(20, 36 + at * 38, 8, 30, kind)
        d.text(36, 49 + at * 38, name, "title")
        d.text(36, 64 + at * 38, what, "note")
    d.text(10, 370, "recording.json lays all files on one clock:", "title")
    for at, (label, bars) in enumerate((("user 1", ((70, 96), (166, 210))), ("user 2", ((110, 266),)))):
        y = 384 + at * 42
        d.text(12, y + 19, label)
        for x, wide in bars:
            d.bar(x, y, wide - 2, 30, "good")
    d.text(78, 403, "first file", "note")
    d.text(174, 403, "second file, no gap", "note")
    d.text(118, 445, "one file", "note")
    d.arrow((70, 474), (388, 474))
    d.line((110, 468), (110, 480))
    d.line((376, 468), (376, 480))
    d.text(110, 496, "first_utc_ms", "note", "middle")
    d.text(388, 496, "last_utc_ms", "note", "end")
    d.text(12, 512, "of user 2's file", "note")
    return d


def overload():
    d = Drawing("What a recorder leaves out when the machine is too busy",
                "Five steps of overload, least loss first: nobody else is let in, stills, half of the mix's "
                "pictures, pictures for the application, users who came last; and the way back.", 616)
    d.text(12, 26, "Once a second: how late are packets, loop, disk?", "title")
    y = d.box(12, 38, 376, "tight", "packets 0.5 s late, disk 2 s, under 128 MiB of memory left", kind="warn")
    x = d.box(60, y + 20, 280, "1  nobody else is let in", "who still waits is told after 10 s", kind="box")
    d.arrow((200, y), (200, y + 20))
    z = d.box(12, x + 20, 376, "too much", "packets 1 s late and no better, or lost while 0.5 s late,", "or under 48 MiB of memory left", kind="bad")
    d.arrow((200, x), (200, x + 20))
    a = d.box(60, z + 20, 280, "2  no stills", kind="box")
    b = d.box(60, a + 16, 280, "3  every second picture of the mix", kind="box")
    c = d.box(60, b + 16, 280, "4  no pictures for the application", kind="box")
    for tip in (z + 20, a + 16, b + 16):
        d.arrow((200, tip - (20 if tip == z + 20 else 16)), (200, tip))
    d.text(346, a + 11, "one a", "note")
    d.text(346, a + 26, "second", "note")
    e = d.box(60, c + 34, 280, "5  users go, the last who came first", "a quarter of them a second at most;", "their files are complete", kind="bad")
    d.arrow((200, c), (200, c + 34))
    d.text(206, c + 22, "the same for 3 s more", "note")
    f = d.box(12, e + 22, 376, "calm", "5 s and longer: what was left out last is made again", "2 s with nothing left out, 15 s or longer after step 5:", "who waits is taken up, in turn", kind="good")
    d.arrow((200, e), (200, e + 22))
    d.text(12, f + 20, "All of it is told: log, missing[], onError(2, 1).", "note")
    d.text(12, f + 36, "Packets wait in their sockets; what finds no room is counted.", "note")
    return d


DRAWINGS = {"overview": overview, "session": session, "rooms": rooms, "packet": packet,
            "folder": folder, "overload": overload}
