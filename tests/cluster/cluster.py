# SPDX-License-Identifier: LGPL-3.0-or-later
"""The cluster of scripts/lib/cluster.sh, as tests use it."""

import json
import os
import shutil
import subprocess
import time
from pathlib import Path

SOURCES = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("TAVRIX_CLUSTER_BUILD", SOURCES / "build/release"))
FOLDER = Path(os.environ["TAVRIX_CLUSTER"])
SHARED = FOLDER / "shared"
CONF = SHARED / ".conf"
MARKER = CONF / "tavrix_event_status.dirty"
SYNC_OFF = CONF / "sync.off"
NODES = [1, 2, 3]
ADDRESSES = ["10.99.0.101", "10.99.0.102", "10.99.0.103"]


def sh(*words, check=True, seconds=200):
    """Runs a function of cluster.sh and returns its output."""
    done = subprocess.run(
        ["bash", "-euo", "pipefail", "-c", 'source "$0"; "$@"', str(SOURCES / "scripts/lib/cluster.sh"),
         *map(str, words)],
        capture_output=True, text=True, timeout=seconds)
    if check and done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, words))}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def on(node, *words, check=True):
    return sh("on", node, *words, check=check)


def comes(condition, seconds=120):
    """Waits for a condition; false when it does not come."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.1)
    return True


def healthy():
    return int(sh("healthy_nodes", check=False) or 0)


def await_healthy(count=3):
    sh("await_healthy", count)


def holders(address):
    return [int(line) for line in sh("holders", address).split()]


def holder(address):
    """The node that serves an address; waits until there is exactly one."""
    assert comes(lambda: len(holders(address)) == 1), f"{address} is on {holders(address)}"
    return holders(address)[0]


def marker():
    """The reason of the request for a rescan; empty when there is none."""
    return MARKER.read_bytes().split(b"\0")[0].decode() if MARKER.exists() else ""


def records_in_memory(node):
    answer = on(node, "tavrixctl", "--json", "events", "buffer", "show", check=False)
    return json.loads(answer).get("records", -1) if answer else -1


def dumps():
    return sorted(CONF.glob("staging/**/pending_*"))


def event_names():
    """The last names of all paths in the dump files of all nodes."""
    files = [Path("/tavrix") / file.relative_to(SHARED) for file in dumps()]
    names = set()
    for first in range(0, len(files), 200):
        out = on(powered()[0], "tavrixctl", "--json", "events", "decode", *files[first:first + 200])
        for line in out.splitlines():
            names.add(json.loads(line).get("path", "").rsplit("/", 1)[-1])
    return names


def replayed(folder):
    """The objects below a folder as the events of all nodes tell, in order of time: path and kind."""
    kinds = {}
    out = on(powered()[0], "tavrixctl", "--json", "events", "decode", "--path", folder, "/tavrix/.conf/staging")
    for line in out.splitlines():
        event = json.loads(line)
        path, target = event["path"], event.get("rename_path", "")
        below = [each for each in kinds if each == path or each.startswith(path + "/")]
        # OPEN says that something changed, perhaps under a name that a folder above has lost meanwhile.
        if event["type"] in ("CREATE", "MKDIR"):
            kinds[path] = event["object"]
        elif event["type"] in ("UNLINK", "RMDIR"):
            for each in below:
                del kinds[each]
        elif event["type"] == "RENAME":
            kinds.update({target + each[len(path):]: kinds.pop(each) for each in below})
    head = folder + "/"
    return {path.removeprefix("/tavrix/").removeprefix(head): kind for path, kind in kinds.items() if head in path}


def planted(folder):
    """The objects that are there."""
    root = SHARED / folder
    return {str(path.relative_to(root)): "DIR" if path.is_dir() else "FILE" for path in root.rglob("*")}


def generation(node):
    return sh("generation_on", node).strip()


def committed():
    path = CONF / "cluster/committed.json"
    return json.loads(path.read_text()) if path.exists() else {"number": 0}


def powered():
    """The nodes that have power: a power cut takes the file away."""
    return [node for node in NODES if (FOLDER / f"node{node}").exists()]


def await_flushes():
    """Until no node has records in memory."""
    assert comes(lambda: all(records_in_memory(node) == 0 for node in powered())), "records stay in memory"


def make_quiet():
    """A healthy cluster without alarms, dump files and files of writers."""
    for node in NODES:
        if node not in powered():
            sh("start_node", node)
        elif "sweeper" not in on(node, "ps", "-eo", "comm", check=False):
            sh("restart_sweeper", node)
        if not on(node, "ctdb", "pnn", check=False):
            sh("start_ctdb", node)
    await_healthy(3)
    await_flushes()
    for file in [*dumps(), MARKER, SYNC_OFF, *SHARED.glob("Shared/Design/*.txt")]:
        file.unlink(missing_ok=True)
    for folder in [*SHARED.glob("Shared/Design/bed*"), SHARED / "Shared/Design/garden"]:
        shutil.rmtree(folder, ignore_errors=True)


def missing(acknowledged):
    """Acknowledged files without an event."""
    await_flushes()
    return missing_now(acknowledged)


def missing_now(acknowledged):
    """Those without an event that the agent could read already."""
    return sorted(set(acknowledged) - event_names())


def changed_paths(folder):
    """The files below a folder of which an event says that they changed."""
    out = on(powered()[0], "tavrixctl", "--json", "events", "decode", "--path", folder, "--op", "change", "/tavrix/.conf/staging")
    return [json.loads(line)["path"].split(folder + "/", 1)[-1] for line in out.splitlines()]
