#!/usr/bin/python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Three nodes with real CTDB and Samba: faults while clients work. Runs in the hub (scripts/test-cluster.sh).

usage: cluster_test.py [CASE]...
TAVRIX_STORM_SEED and TAVRIX_STORM_ROUNDS choose another storm.
"""

import json
import os
import random
import subprocess
import sys
import time
import traceback

import cluster
from cluster import ADDRESSES, NODES, comes, on, sh
from impacket.smb3structs import FILE_OPEN, FILE_READ_DATA, FILE_SHARE_READ, FILE_SHARE_WRITE, FILE_WRITE_DATA
from impacket.smbconnection import SessionError
from writers import Asker, Crowd, Gardener, connect, put

CASES = {}


def case(function):
    CASES[function.__name__] = function
    return function


def expect_nothing_lost(crowd):
    """Every acknowledged write has its event, and nobody asks for a rescan."""
    lost = cluster.missing(crowd.acknowledged())
    assert not lost, f"{len(lost)} of {len(crowd.acknowledged())} acknowledged writes have no event: {lost[:5]}"
    assert not cluster.marker(), cluster.marker()


def expect_told(crowd, node):
    """Writes without an event may be there; then the agent is told, by the name of the node."""
    assert comes(lambda: f"node node{node} " in cluster.marker()), f"nobody tells of node{node}: {cluster.marker()}"
    lost = cluster.missing(crowd.acknowledged())
    print(f"    {len(lost)} of {len(crowd.acknowledged())} acknowledged writes have no event; the marker tells")


# --- no acknowledged change without an event or an alarm -----------------------------------------


@case
def a_clean_shutdown_loses_nothing():
    with Crowd("shutdown", ADDRESSES) as crowd:
        sh("stop_ctdb", 2)
        crowd.await_progress()
    sh("start_ctdb", 2)
    cluster.await_healthy()
    expect_nothing_lost(crowd)


@case
def a_killed_ctdbd_loses_nothing():
    with Crowd("ctdbd", ADDRESSES) as crowd:
        sh("kill_ctdbd", 3)
        crowd.await_progress()
    sh("start_ctdb", 3)
    cluster.await_healthy()
    expect_nothing_lost(crowd)


@case
def a_killed_sweeper_loses_nothing():
    with Crowd("sweeper", ADDRESSES) as crowd:
        on(2, "pkill", "-KILL", "-x", "tavrix-sweeper")
        crowd.await_progress()
        sh("restart_sweeper", 2)
        crowd.await_progress()
    cluster.await_healthy()
    expect_nothing_lost(crowd)


@case
def a_power_cut_is_told():
    with Crowd("power", ADDRESSES) as crowd:
        node = cluster.holder(ADDRESSES[0])
        sh("power_off", node)
        begin = time.monotonic()
        assert comes(lambda: f"node node{node} " in cluster.marker()), "no survivor tells"
        print(f"    told {time.monotonic() - begin:.1f} s after the cut")
        crowd.await_progress()
    print(f"    the longest gap of a client: {crowd.longest_gap():.1f} s")
    expect_told(crowd, node)
    cluster.MARKER.unlink()
    sh("start_node", node)
    cluster.await_healthy()
    assert not cluster.marker(), f"it is told twice: {cluster.marker()}"


@case
def power_cuts_of_all_nodes_are_told_when_they_come_back():
    with Crowd("all", ADDRESSES) as crowd:
        crowd.await_progress()
        for node in NODES:
            sh("power_off", node)
    assert not cluster.marker()
    for node in NODES:
        sh("start_node", node)
    cluster.await_healthy()
    assert "stopped while events were in its memory" in cluster.marker(), cluster.marker()
    # Nothing waits to be told any more: each mark is of a node that runs.
    assert sorted(each.name for each in cluster.CONF.glob("cluster/running/*")) == ["node1", "node2", "node3"]
    assert not list(cluster.CONF.glob("cluster/running/.lost.*"))


@case
def dump_files_of_nodes_do_not_collide():
    # A program with the same process number and the same time on each node.
    preload = cluster.FOLDER / "same.so"
    build_preload(preload)
    names, clients = [], []
    nodes_of = spread_addresses()
    for node in NODES:
        on(node, "pkill", "-STOP", "-x", "tavrix-sweeper")
    for address in ADDRESSES:
        names.append(f"from_{nodes_of[address]}.txt")
        clients.append(connect(address))  # a server process whose client leaves flushes
        put(*clients[-1], "Shared\\Design\\" + names[-1])
    for node in NODES:
        on(node, "env", f"LD_PRELOAD={preload}", "tavrixctl", "events", "buffer", "flush")
    same = [file for file in cluster.dumps() if file.name == "pending_4711_1800000000.000005"]
    for node in NODES:
        on(node, "pkill", "-CONT", "-x", "tavrix-sweeper")
    assert len(same) == len(NODES), f"{len(same)} dump files of {len(NODES)} nodes: {same}"
    assert not cluster.missing(names)


def build_preload(target):
    source = target.with_suffix(".c")
    source.write_text("""
#include <sys/time.h>
#include <unistd.h>
int gettimeofday(struct timeval* restrict t, void* restrict zone) {
  (void)zone;
  t->tv_sec = 1800000000;
  t->tv_usec = 5;
  return 0;
}
pid_t getpid(void) { return 4711; }
""")
    subprocess.run(["cc", "-shared", "-fPIC", "-o", target, source], check=True)


@case
def a_power_cut_in_the_middle_of_a_flush_loses_nothing_of_it():
    # The buffer is empty, and the file has no name yet that the agent knows.
    node = NODES[1]
    address = f"10.99.0.{node}"
    on(node, "pkill", "-STOP", "-x", "tavrix-sweeper")
    client, tree = connect(address)
    names = [f"flushed_{number}.txt" for number in range(20)]
    for name in names:
        put(client, tree, "Shared\\Design\\" + name)
    assert records_wait(node)
    faults = cluster.BUILD / "tests/libtavrix_faults.so"
    on(node, "sh", "-c", f"LD_PRELOAD={faults} TAVRIX_FAULTS=rename@pending_:stop:1 tavrixctl events buffer flush >/dev/null 2>&1 &")
    assert comes(lambda: list(cluster.CONF.glob("staging/**/txtemp*")) and cluster.records_in_memory(node) == 0)
    assert cluster.missing_now(names)
    sh("power_off", node)
    assert comes(lambda: f"node node{node} " in cluster.marker()), "no survivor tells"
    assert comes(lambda: not cluster.missing_now(names)), "the file of the flush is not adopted"
    assert not list(cluster.CONF.glob("staging/**/txtemp*"))


def records_wait(node):
    return comes(lambda: cluster.records_in_memory(node) > 0)


# --- maps ----------------------------------------------------------------------------------------


def hand_over(may_ben_write):
    """A map that goes to all nodes by node 1, and its generation."""
    folder = cluster.FOLDER / "pair"
    folder.mkdir(exist_ok=True)
    size = json.loads((cluster.SOURCES / "examples/team/size.json").read_text())
    size["GENERATIONNUM"] = cluster.committed()["generation"] + 1
    (folder / "size.json").write_text(json.dumps(size))
    data = (cluster.SOURCES / "examples/team/data.json").read_text()
    (folder / "data.json").write_text(data.replace('"9011": 1', '"9011": 3' if may_ben_write else '"9011": 1'))
    sh("hand_over", 1, folder)
    return size["GENERATIONNUM"]


def commit(may_ben_write):
    """The same, and when it was committed."""
    generation = hand_over(may_ben_write)
    assert comes(lambda: cluster.committed()["generation"] == generation), cluster.committed()
    return generation, time.monotonic()


def let_ben_write():
    generation, _ = commit(True)
    assert comes(lambda: all(cluster.generation(node) == str(generation) for node in NODES))


BOUND = 10  # seconds, "CLUSTER:fence seconds" as shipped


@case
def no_verdict_is_of_an_old_map():
    node = NODES[2]
    faults = {
        "the daemon hangs": (["pkill", "-STOP", "-x", "tavrix-clusterd"], ["pkill", "-CONT", "-x", "tavrix-clusterd"]),
        "the tree is away": (["mount", "-t", "tmpfs", "tmpfs", "/tavrix"], ["umount", "/tavrix"]),
        "the link is down": (["ip", "link", "set", "eth0", "down"], ["ip", "link", "set", "eth0", "up"]),
    }
    for name, (fault, repair) in faults.items():
        let_ben_write()
        own = [f"10.99.0.{each}" for each in NODES]
        askers = [Asker(address, "ben", keeps) for address in ADDRESSES + own for keeps in (True, False)]
        for asker in askers:
            asker.start()
        assert comes(lambda: all(asker.last(0) for asker in askers)), [asker.name for asker in askers if not asker.last(0)]
        on(node, *fault)
        _, revoked = commit(False)
        time.sleep(BOUND + 3)
        on(node, *repair)
        repaired = time.monotonic()
        cluster.await_healthy()
        assert comes(lambda: all(asker.last(repaired) is False for asker in askers)), \
            f"{name}: {[asker.name for asker in askers if asker.last(repaired) is not False]}"
        for asker in askers:
            asker.stop()
        late = {asker.name: asker.allowed_since(revoked + BOUND) for asker in askers if asker.allowed_since(revoked + BOUND)}
        assert not late, f"{name}: allowed so many seconds after the bound: {late}"
        last = max((seconds for asker in askers for seconds in asker.allowed_since(revoked)), default=0)
        print(f"    {name}: the last verdict of the old map {last:.1f} s after the commit")


@case
def a_node_that_returns_serves_the_new_map_only():
    node = NODES[2]
    let_ben_write()
    sh("power_off", node)
    generation, _ = commit(False)
    asker = Asker(f"10.99.0.{node}", "ben", keeps_connection=False)
    asker.start()
    sh("start_node", node)
    cluster.await_healthy()
    assert comes(lambda: asker.last(0) is False), "the node does not serve"
    asker.stop()
    assert cluster.generation(node) == str(generation)
    assert not asker.allowed_since(0), "its old local copy has served a client"


# --- addresses -----------------------------------------------------------------------------------


def is_one_holder_each():
    return all(len(cluster.holders(address)) == 1 for address in ADDRESSES)


def spread_addresses():
    """The node of each address, when each node has one: CTDB gives them back some seconds after all are well."""
    assert comes(lambda: is_one_holder_each() and len({cluster.holder(each) for each in ADDRESSES}) == len(NODES))
    return {address: cluster.holder(address) for address in ADDRESSES}


@case
def each_address_is_on_one_node():
    faults = {
        "ctdb shutdown": (lambda: sh("stop_ctdb", 1), lambda: sh("start_ctdb", 1)),
        "ctdbd killed": (lambda: sh("kill_ctdbd", 2), lambda: sh("start_ctdb", 2)),
        "power cut": (lambda: sh("power_off", 3), lambda: sh("start_node", 3)),
    }
    for name, (fault, repair) in faults.items():
        fault()
        begin = time.monotonic()
        assert comes(is_one_holder_each), f"{name}: {[cluster.holders(each) for each in ADDRESSES]}"
        for address in ADDRESSES:
            assert comes(lambda a=address: can_write(a)), f"{name}: no client writes at {address}"
        print(f"    {name}: clients write at all addresses after {time.monotonic() - begin:.1f} s")
        repair()
        cluster.await_healthy()
        assert comes(is_one_holder_each)


def can_write(address):
    try:
        client, tree = connect(address)
        put(client, tree, "Shared\\Design\\probe.txt")
        client.close()
    except Exception:
        return False
    return True


@case
def one_fault_never_takes_all_addresses():
    # A fault that all nodes see makes none of them unhealthy.
    for alarm in (cluster.SYNC_OFF, cluster.MARKER):
        alarm.write_text("an alarm\0")
        expect_healthy_for_a_round(3)
        alarm.unlink()
    # A fault of one node makes that node unhealthy, and its addresses move.
    on(2, "pkill", "-KILL", "-x", "tavrix-sweeper")
    assert comes(lambda: cluster.healthy() == 2), cluster.healthy()
    assert comes(lambda: is_one_holder_each() and all(cluster.holders(a) != [2] for a in ADDRESSES))
    sh("restart_sweeper", 2)
    cluster.await_healthy()


def expect_healthy_for_a_round(count):
    """Each node has run its monitor with the present state, and all are healthy."""
    for node in NODES:
        # CTDB cancels it when another event comes.
        sh("await", 60, "on", node, "ctdb", "event", "run", "30", "legacy", "monitor")
    assert cluster.healthy() == count


# --- clients of different nodes ------------------------------------------------------------------


@case
def share_modes_hold_across_nodes():
    spread_addresses()
    first, first_tree = connect(ADDRESSES[0])
    second, second_tree = connect(ADDRESSES[1], "admin")
    put(first, first_tree, "Shared\\Design\\modes.txt")
    handle = first.openFile(first_tree, "Shared\\Design\\modes.txt", desiredAccess=FILE_WRITE_DATA,
                            shareMode=0, creationDisposition=FILE_OPEN)
    try:
        second.openFile(second_tree, "Shared\\Design\\modes.txt", desiredAccess=FILE_READ_DATA,
                        shareMode=FILE_SHARE_READ | FILE_SHARE_WRITE, creationDisposition=FILE_OPEN)
        raise AssertionError("another node opened a file that nobody may share")
    except SessionError as refusal:
        assert "SHARING_VIOLATION" in str(refusal), refusal
    first.closeFile(first_tree, handle)
    second.openFile(second_tree, "Shared\\Design\\modes.txt", desiredAccess=FILE_READ_DATA,
                    shareMode=FILE_SHARE_READ | FILE_SHARE_WRITE, creationDisposition=FILE_OPEN)


@case
def the_tree_can_be_rebuilt_after_a_rename_above_an_open_file():
    spread_addresses()
    first, first_tree = connect(ADDRESSES[0])
    second, _ = connect(ADDRESSES[1])
    for folder in ("garden", "garden\\above"):
        first.createDirectory("tavrix", "Shared\\Design\\" + folder)
    handle = first.createFile(first_tree, "Shared\\Design\\garden\\above\\open.txt", desiredAccess=FILE_WRITE_DATA,
                              shareMode=FILE_SHARE_READ | FILE_SHARE_WRITE)
    first.writeFile(first_tree, handle, b"before")
    second.rename("tavrix", "Shared\\Design\\garden\\above", "Shared\\Design\\garden\\below")
    first.writeFile(first_tree, handle, b"after the rename")
    first.closeFile(first_tree, handle)
    cluster.await_flushes()
    there, told = cluster.planted("Shared/Design/garden"), cluster.replayed("Shared/Design/garden")
    assert there == told, f"there is {there}, and the events tell of {told}"
    changed = cluster.changed_paths("Shared/Design/garden")
    assert "below/open.txt" in changed, f"nobody tells that the file changed where it is now: {changed}"


# --- settings ------------------------------------------------------------------------------------


@case
def settings_of_a_node_reach_all():
    def period(node):
        shown = json.loads(on(node, "tavrixctl", "--json", "config", "show"))
        return next(each["value"] for each in shown["settings"] if each["name"] == "SWEEPER:flush period")

    before = period(1)
    for value in (before + 2, before):
        on(1, "sed", "-i", f"s/^flush period = .*/flush period = {value}/", "/etc/tavrix/tavrix.conf")
        on(1, "tavrixctl", "cluster", "share", "--settings")
        assert comes(lambda v=value: all(period(node) == v for node in NODES)), [period(node) for node in NODES]
    assert comes(lambda: on(2, "tavrixctl", "cluster", "status", check=False).find("differs") < 0)


# --- many things at once -------------------------------------------------------------------------


@case
def a_rolling_restart_loses_nothing():
    with Crowd("rolling", ADDRESSES) as crowd:
        for node in NODES:
            sh("stop_ctdb", node)
            sh("await_end_of_services", node)
            sh("power_off", node)
            sh("start_node", node)
            cluster.await_healthy()
            crowd.await_progress()
    print(f"    {len(crowd.acknowledged())} writes, the longest gap {crowd.longest_gap():.1f} s")
    expect_nothing_lost(crowd)


@case
def a_storm_loses_nothing_untold():
    storm(["stop_ctdb", "kill_ctdbd", "power_off", "sweeper", "map"])


@case
def the_tree_can_be_rebuilt_after_a_storm_without_power_cuts():
    storm(["stop_ctdb", "kill_ctdbd", "sweeper", "map"])


def storm(faults, gardeners=8):
    seed = int(os.environ.get("TAVRIX_STORM_SEED", random.SystemRandom().randrange(1 << 30)))
    print(f"    seed {seed}")
    dice = random.Random(seed)
    has_lost = False
    workers = [Gardener(number, ADDRESSES, dice.randrange(1 << 30)) for number in range(gardeners)]
    for worker in workers:
        worker.start()
    for _ in range(int(os.environ.get("TAVRIX_STORM_ROUNDS", 5))):
        fault, node = dice.choice(faults), dice.choice(NODES)
        print(f"    {fault} on node{node}")
        has_lost |= fault == "power_off"
        bring_about(fault, node, dice)
        await_steps(workers, 1)
        cluster.await_healthy()
        await_steps(workers, 5)
    for worker in workers:
        worker.stop()
    cluster.await_flushes()
    for node in NODES:
        assert comes(lambda n=node: cluster.generation(n) == str(cluster.committed()["generation"])), f"node{node} has another map"
    words = [json.loads((cluster.CONF / f"cluster/nodes/node{node}.json").read_text()) for node in NODES]
    assert len({word["settings_hash"] for word in words}) == 1, words
    wrong = differing_beds(workers)
    print(f"    {sum(worker.done for worker in workers)} steps in {sum(len(worker.beds) for worker in workers)} beds; "
          f"{len(wrong)} differ from their events")
    if has_lost:
        assert cluster.marker(), "no marker after a power cut"
    else:
        assert not wrong, wrong
        assert not cluster.marker(), cluster.marker()


def bring_about(fault, node, dice):
    if fault == "map":
        hand_over(dice.random() < 0.5)
    elif fault == "sweeper":
        on(node, "pkill", "-KILL", "-x", "tavrix-sweeper")
        sh("restart_sweeper", node)
    else:
        sh(fault, node)
        time.sleep(1)
        sh("start_node" if fault == "power_off" else "start_ctdb", node)


def await_steps(workers, each, seconds=120):
    goals = [(worker, worker.done + each) for worker in workers]
    assert comes(lambda: all(worker.done >= goal for worker, goal in goals), seconds), "clients do not get on"


def differing_beds(workers):
    """The beds whose events lead to another tree than the one that is there. A step without an answer may be done."""
    told, there = cluster.replayed("Shared/Design"), cluster.planted("Shared/Design")
    wrong = {}
    for worker in workers:
        for bed, step in worker.beds.items():
            events = {path: kind for path, kind in told.items() if (path + "/").startswith(bed + "/")}
            tree = {path: kind for path, kind in there.items() if (path + "/").startswith(bed + "/")}
            if tree not in (events, after(step, events)):
                wrong[bed] = {"unanswered": step, "events": sorted(set(events) - set(tree)), "tree": sorted(set(tree) - set(events))}
    return wrong


def after(step, tree):
    if step is None:
        return tree
    kind, path, target = step
    below = {each: tree[each] for each in tree if (each + "/").startswith(path + "/")}
    rest = {each: tree[each] for each in tree if each not in below}
    if kind == "RENAME":
        return rest | {target + each[len(path):]: what for each, what in below.items()}
    if kind == "UNLINK":
        return rest
    return tree | {path: "DIR" if kind == "MKDIR" else "FILE"}


def run(name):
    print(f"[ RUN      ] {name}", flush=True)
    begin = time.monotonic()
    try:
        cluster.make_quiet()
        CASES[name]()
        verdict = "      OK"
    except Exception:
        traceback.print_exc(file=sys.stdout)
        print(sh("show_troubles", check=False))
        verdict = " FAILED "
    print(f"[ {verdict} ] {name} ({time.monotonic() - begin:.0f} s)", flush=True)
    return verdict != " FAILED "


def main():
    names = sys.argv[1:] or list(CASES)
    unknown = [name for name in names if name not in CASES]
    if unknown:
        sys.exit(f"no case {', '.join(unknown)}; there are: {', '.join(CASES)}")
    failed = [name for name in names if not run(name)]
    print(f"{len(names) - len(failed)} of {len(names)} cases passed" + "".join(f"\n  {name}" for name in failed))
    sys.exit(1 if failed else 0)


main()
