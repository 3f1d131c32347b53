#!/usr/bin/python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""A client that executes what it is told: a case a line as JSON on standard input, its answer a line.

A case is {"as": user, "steps": [{"do": operation, ...}, ...]}. Steps share handles, by name ("h" unless
the step says "on"); a step may be somebody else's ("as"). Connections are kept. A case that "goes on" has the handles
of the case before, whose last step was "keep". The answer is
{"steps": [{"status": "NT_STATUS_...", "names": [...], ...}]}: names are whatever the server told, as paths
of the share. Handles that are left are closed after the last step."""

import json
import struct
import sys

from impacket import nt_errors

import levels
from wire import Wire, contexts_in

NOTIFY_CLEANUP = 0x0000010B  # how a wait for changes ends that saw none


def status_name(status):
    name = nt_errors.ERROR_MESSAGES.get(status, (hex(status),))[0]
    return "OK" if status == 0 else name.removeprefix("STATUS_")


def keeps(case):
    """True if the last step asks for the handles to stay open."""
    return case["steps"][-1]["do"] == "keep"


class Handle:
    """An open object: its connection, its name and the server's number for it."""

    def __init__(self, wire, name, identity):
        self.wire, self.name, self.identity = wire, name, identity


class Client:
    def __init__(self, share):
        self.share = share
        self.wires = {}
        self.handles = {}
        self.waiting = {}

    def wire(self, user, share=None):
        """The user's connection; a user without an account is a guest."""
        share = share or self.share
        if (user, share) not in self.wires:
            self.wires[user, share] = Wire(user, user, share)
        return self.wires[user, share]

    def run(self, case):
        if not case.get("goes on"):  # else the handles are those that the case before has kept
            self.handles, self.waiting = {}, {}
        answers = []
        try:
            for step in case["steps"]:
                answers.append(self.step({"as": case.get("as"), "share": case.get("share"), **step}))
        finally:
            for handle in [] if keeps(case) else self.handles.values():
                answer = handle.wire.close(handle.identity)
                if not answer.ok:
                    answers.append({"do": "close", "status": status_name(answer.status)})
        return {"steps": answers}

    def step(self, step):
        name = step.get("on", "h")
        do = step["do"]
        if do == "create":
            return self.create(name, step)
        if do == "drop":
            return self.drop(step)
        if do == "keep":
            return {"do": "keep", "status": "OK"}
        handle = self.handles.get(name)
        if handle is None:
            return {"do": do, "status": "NO_HANDLE"}
        answer = {"do": do}
        status = getattr(self, do)(name, handle, step, answer)
        answer["status"] = status_name(status)
        return answer

    def drop(self, step):
        """Closes the socket without a logoff."""
        wire = self.wires.pop((step["as"], step["share"] or self.share))
        wire.server._NetBIOSSession._sock.close()
        self.handles = {name: handle for name, handle in self.handles.items() if handle.wire is not wire}
        return {"do": "drop", "status": "OK"}

    def create(self, name, step):
        contexts = [(tag, bytes.fromhex(data)) for tag, data in step.get("contexts", {}).items()]
        wire = self.wire(step["as"], step["share"])
        answer = wire.create(
            step["name"], step.get("access", 0x80), step.get("disposition", 1), step.get("options", 0),
            step.get("attributes", 0), step.get("sharing", 7), step.get("oplock", 0), contexts)
        told = {"do": "create", "status": status_name(answer.status)}
        if answer.status != 0:
            told["detail"] = answer.body[8:].hex() if answer.status == 0x8000002D else ""
            return told
        told["action"] = struct.unpack_from("<I", answer.body, 4)[0]
        told["identity"] = answer.body[64:80].hex()
        told["times"] = struct.unpack_from("<QQQQ", answer.body, 8)
        told["attributes"] = struct.unpack_from("<I", answer.body, 56)[0]
        told["contexts"] = {tag: data.hex() for tag, data in contexts_in(answer.buffer(80, 84, True)).items()}
        self.handles[name] = Handle(wire, step["name"], answer.body[64:80])
        return told

    def close(self, name, handle, step, answer):
        del self.handles[name]
        return handle.wire.close(handle.identity).status

    def flush(self, name, handle, step, answer):
        return handle.wire.flush(handle.identity).status

    def read(self, name, handle, step, answer):
        said, data = handle.wire.read(handle.identity, step.get("offset", 0), step.get("length", 64))
        answer["data"] = data.decode("latin1")
        return said.status

    def write(self, name, handle, step, answer):
        data = step.get("data", "written").encode("latin1")
        return handle.wire.write(handle.identity, step.get("offset", 0), data).status

    def lock(self, name, handle, step, answer):
        return handle.wire.lock(handle.identity, step.get("offset", 0), step.get("length", 1),
                                step.get("flags", 0x11)).status

    def ioctl(self, name, handle, step, answer):
        data = bytes.fromhex(step.get("data", ""))
        if "source" in step:  # the key of another handle, which copies name
            said, key = self.handles[step["source"]].wire.ioctl(
                self.handles[step["source"]].identity, levels.REQUEST_RESUME_KEY, room=32)
            if not said.ok:
                return said.status
            data = key[:24] + data
        said, out = handle.wire.ioctl(handle.identity, step["code"], data, step.get("room", 65536))
        answer["out"] = out.hex()
        return said.status

    def list(self, name, handle, step, answer):
        level = step.get("level", "both")
        answer["names"] = []
        flags = 1
        while True:
            said, data = handle.wire.list(handle.identity, levels.LISTINGS[level][0], step.get("pattern", "*"),
                                          flags)
            if not said.ok:
                break
            found = levels.entries(level, data)
            answer["names"] += [levels.joined(handle.name, entry) for entry in found]
            flags = 0
        ended = said.status == 0x80000006 and answer["names"]
        return 0 if ended else said.status

    def page(self, name, handle, step, answer):
        """One request of a listing."""
        level = step.get("level", "names")
        said, data = handle.wire.list(handle.identity, levels.LISTINGS[level][0], step.get("pattern", "*"),
                                      step.get("flags", 0), step.get("room", 65536), step.get("index", 0))
        answer["names"] = levels.entries(level, data)
        return said.status

    def pages(self, name, handle, step, answer):
        """Requests to the end of a listing."""
        answer["names"] = []
        while True:
            part = {}
            status = self.page(name, handle, step, part)
            if status != 0:
                return 0 if status == 0x80000006 else status
            answer["names"] += part["names"]

    def notify(self, name, handle, step, answer):
        self.waiting[name] = handle.wire.notify_begin(handle.identity, step.get("filter", 0xFFF),
                                                      step.get("recursive", True))
        return 0

    def noticed(self, name, handle, step, answer):
        """The notices that a waiting handle got; closes it, at once unless it has to wait for some."""
        self.handles.pop(name)
        if step.get("wait"):
            said, data = handle.wire.notify_end(self.waiting.pop(name))
            handle.wire.close(handle.identity)
        else:
            handle.wire.close(handle.identity)
            said, data = handle.wire.notify_end(self.waiting.pop(name))
        answer["names"] = [levels.joined(handle.name, entry) for entry in levels.notices(data)]
        return 0 if said.status == NOTIFY_CLEANUP else said.status

    def query(self, name, handle, step, answer):
        said, data = handle.wire.query(
            handle.identity, step.get("kind", 1), step["level"], step.get("extra", 0),
            bytes.fromhex(step.get("data", "")), step.get("flags", 0))
        answer["out"] = data.hex()
        if said.ok:
            answer["names"] = levels.names_of_query(handle.name, step.get("kind", 1), step["level"], data)
        return said.status

    def set(self, name, handle, step, answer):
        data = bytes.fromhex(step["data"]) if "data" in step else levels.packed(step)
        return handle.wire.set(handle.identity, step.get("kind", 1), step["level"], data,
                               step.get("extra", 0)).status


def main():
    client = Client(sys.argv[1])
    for line in sys.stdin:
        case = json.loads(line)
        try:
            told = client.run(case)
        except Exception as error:  # the server is gone, or refuses the user: a finding, not our end
            user, share = case.get("as"), case.get("share") or client.share
            client.wires.pop((user, share), None)
            told = {"steps": [], "error": f"{type(error).__name__}: {error}"}
        print(json.dumps(told), flush=True)


if __name__ == "__main__":
    main()
