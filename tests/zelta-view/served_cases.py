# SPDX-License-Identifier: Apache-2.0
"""What the server gives, to whom, and when things go wrong meanwhile."""
import http.client
import json
import os
import socket
import urllib.error
import urllib.request

from crafted import Crafted
from viewing import Viewer, require

BIG_BYTES = 64 << 20
MOST_OPEN_BYTES = 4 << 20
MANY_SILENT = 200


def served(_, folder):
    with open(f"{folder}/recording.json", encoding="utf-8") as text:
        name = json.load(text)["files"][0]["name"]
    with open(f"{folder}/{name}", "rb") as file:
        whole = file.read()
    with Viewer(folder, environment={"ZELTA_VIEW_TOKEN": ""}) as viewer:
        require(viewer.get(f"files/{name}")[2] == whole, "not the whole file")
        status, headers, body = viewer.get(f"files/{name}", Range="bytes=100-400099")
        require(status == 206 and body == whole[100:400100], f"range: {status}, {len(body)} bytes")
        require(headers["Content-Range"] == f"bytes 100-{99 + len(body)}/{len(whole)}",
                headers["Content-Range"])
        status, headers, _ = viewer.get(f"files/{name}", Range=f"bytes={len(whole)}-")
        require(status == 416 and headers["Content-Range"] == f"bytes */{len(whole)}", status)
        for path in ["files/recording.json", "files/journal.json", "recording_engine.log",
                     "files/..%2f..%2fetc%2fpasswd", "files/%2fetc%2fpasswd", "levels/x"]:
            require(viewer.get(path)[0] == 404, path)
        ask = urllib.request.Request(viewer.url + f"files/{name}", method="HEAD")
        with urllib.request.urlopen(ask, timeout=10) as answer:
            require(answer.headers["Content-Length"] == str(len(whole)), "HEAD")
        require(viewer.get("", Host="somebody.example")[0] == 421, "another's host name")
        require("script-src 'sha256-" in viewer.get("")[1]["Content-Security-Policy"], "no policy")
        tag = viewer.get("session.json")[1]["ETag"]
        require(viewer.get("session.json", **{"If-None-Match": tag})[0] == 304, "not known again")
        require(viewer.get("session.json", **{"If-None-Match": '"x"'})[0] == 200, "known without reason")
        require(viewer.get("session.json", **{"Sec-Fetch-Site": "cross-site"})[0] == 403, "another site")
    with Viewer(folder, environment={"ZELTA_VIEW_TOKEN": "sesame"}) as viewer:
        require(viewer.get(f"files/{name}")[0] == 401, "a file without the token")
        require(b'name="token"' in viewer.get("")[2], "no form")
        require(viewer.get(f"files/{name}", Authorization="Bearer sesame")[2] == whole, "bearer")
        for wrong in [b"token=wrong", b"token=sesame" + b" " * 5000]:
            ask = urllib.request.Request(viewer.url, data=wrong)
            try:
                urllib.request.urlopen(ask, timeout=10).close()
                raise AssertionError("somebody is let in with another token")
            except urllib.error.HTTPError as error:
                require(error.code == 403, error.code)
        ask = urllib.request.Request(viewer.url, data=b"token=sesame")
        opener = urllib.request.build_opener(urllib.request.HTTPCookieProcessor())
        with opener.open(ask, timeout=10) as answer:
            require(b'id="grid"' in answer.read(), "the form doesn't lead to the page")
    return {"bytes": len(whole)}


def file_that_shrinks(_, _folder):
    """The connection ends, and nothing of it is left."""
    with Crafted() as folder:
        path = folder.add("1_a.mp4", 1, 0, 9000)
        os.truncate(path, BIG_BYTES)
        with Viewer(folder.path) as viewer:
            status, headers, body = viewer.get("files/1_a.mp4", Range="bytes=5-")
            require(status == 206 and len(body) == MOST_OPEN_BYTES, f"{status}, {len(body)} bytes")
            require(headers["Content-Range"] == f"bytes 5-{MOST_OPEN_BYTES + 4}/{BIG_BYTES}",
                    headers["Content-Range"])
            port = int(viewer.url.rstrip("/").rsplit(":", 1)[1])
            with socket.create_connection(("127.0.0.1", port), timeout=10) as asker:
                asker.sendall(f"GET /files/1_a.mp4 HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n\r\n".encode())
                got = len(asker.recv(1000))
                os.truncate(path, 1 << 20)
                try:
                    while piece := asker.recv(1 << 20):
                        got += len(piece)
                except ConnectionResetError:
                    pass
            require(got < BIG_BYTES, f"{got} bytes of a file that has fewer")
            # By the thread that lets go of it.
            viewer.get("session.json")
            held = [os.readlink(entry.path) for entry in os.scandir(f"/proc/{viewer.process.pid}/fd")]
            require(path not in held, "the file is still open")
    return {"sent_bytes": got}


def server_that_comes_back(open_page, _):
    """What the network failed at is asked for again."""
    with Crafted() as folder:
        folder.film("1_a.mp4", 1, seconds=60, source="noise", bitrate="8M", size="320x180")
        folder.film("2_b.mp4", 2, seconds=60, cut=True)
        with Viewer(folder.path) as viewer:
            port = viewer.url.rstrip("/").rsplit(":", 1)[1]
            page = open_page(viewer.url)
            page.wait_for("document.body.dataset.state === 'paused' && tracks.every(track => track.active.isReady)")
        page.evaluate("seek(session.begin_ms + 50000)")
        page.wait_for("tracks.some(track => track.active.file && !track.active.isReady)")
        with Viewer(folder.path, "--address", f"127.0.0.1:{port}"):
            page.wait_for("tracks.every(track => track.active.isReady && !track.active.fault &&"
                          "Math.abs(track.active.video.currentTime - 50) < 0.5)", 40)
            require(page.evaluate("faults") == [], page.evaluate("faults"))
            page.close()


def volumes_of_who_has_gone(_, _folder):
    """Aren't measured."""
    with Crafted() as folder:
        for uid in [1, 2, 3]:
            folder.film(f"{uid}_a.webm", uid, seconds=2 if uid == 3 else 300, codec="vp8", fps=1)
        with Viewer(folder.path) as viewer:
            askers = {uid: http.client.HTTPConnection(viewer.url.split("/")[2], timeout=30) for uid in [1, 2, 3]}
            for uid, asker in askers.items():
                asker.request("GET", f"/levels/{uid}_a.webm")
                # Each has been taken in before the next: the first is being measured meanwhile.
                viewer.get("session.json")
                if uid == 2:
                    asker.close()
            for uid in [1, 3]:
                require(b"levels" in askers[uid].getresponse().read(), f"no volumes of {uid}")
                askers[uid].close()
            kept = os.listdir(viewer.cache)
            require(len(kept) == 2, f"measured are {kept}")


def too_many_visitors(_, _folder):
    """Who was silent for longest is sent away; neither who asks nor who reads slowly is."""
    with Crafted() as folder:
        os.truncate(folder.add("1_a.mp4", 1, 0, 9000), BIG_BYTES)
        with Viewer(folder.path, descriptors=MANY_SILENT) as viewer:
            where = viewer.url.split("/")[2]
            address = tuple(where.split(":"))
            reader = http.client.HTTPConnection(where, timeout=10)
            reader.request("GET", "/files/1_a.mp4")
            answer = reader.getresponse()
            silent = []
            read = 0
            for at in range(MANY_SILENT):
                silent.append(socket.create_connection(address, timeout=10))
                if at % 8 == 0:
                    read += len(answer.read(2 << 20))
                    require(viewer.get("session.json")[0] == 200, f"no answer beside {at}")
            require(silent[0].recv(1) == b"", "who was silent for longest is still there")
            silent[-1].sendall(f"GET /session.json HTTP/1.1\r\nHost: {where}\r\n\r\n".encode())
            require(silent[-1].recv(12) == b"HTTP/1.1 200", "the last one isn't answered")
            read += len(answer.read())
            require(read == BIG_BYTES, f"a slow reader got {read} bytes of {BIG_BYTES}")
            open_now = len(os.listdir(f"/proc/{viewer.process.pid}/fd"))
            reader.close()
            for one in silent:
                one.close()
    return {"descriptors": open_now}


CASES = [served, too_many_visitors, volumes_of_who_has_gone, file_that_shrinks, server_that_comes_back]
