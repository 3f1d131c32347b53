# SPDX-License-Identifier: LGPL-3.0-or-later
"""The page in Cockpit as people use it. world.sh runs this in its private world."""
import asyncio
import json
import logging
import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import sys
import time
import unittest
import urllib.parse

sys.path.insert(0, os.path.dirname(__file__))
from browser import Browser  # noqa: E402

SOURCES = os.environ["TAVRIX_SOURCES"]
AXE = SOURCES + "/page/node_modules/axe-core/axe.min.js"
PICTURES = SOURCES + "/docs/pictures"
ROOT = "http://127.0.0.1:9090/cockpit/@localhost/tavrix/index.html#/"
LOGIN = "http://127.0.0.1:9091/tavrix"
TOOL = "/usr/local/sbin/tavrixctl"
LOADER = "/usr/local/sbin/tavrix-loader"


def ctl(*words, check=True):
    done = subprocess.run(["tavrixctl", *words], capture_output=True, text=True)
    if check and done.returncode == 2:
        raise RuntimeError(done.stderr)
    return done


def team():
    """The example's map, and who is in which group."""
    ctl("map", "import", "/scratch/size.json", "/scratch/data.json")
    groups = {"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002},
              "users": {"anna": [9002, 9010], "ben": [9002, 9011], "carol": [9001]}}
    with open("/scratch/groups.json", "w") as file:
        json.dump(groups, file)
    ctl("groupmap", "build", "/scratch/groups.json", "-o", "/etc/tavrix/groupmap_refresh")


logging.getLogger("asyncio").setLevel(logging.ERROR)  # it tells of slow steps


class PageTest(unittest.IsolatedAsyncioTestCase):
    browser = None

    @classmethod
    def setUpClass(cls):
        PageTest.browser = PageTest.browser or Browser()

    def setUp(self):
        team()

    async def open(self, place):
        self.page = await self.browser.page(ROOT + place)
        self.addAsyncCleanup(self.leave, self.page)
        return self.page

    async def leave(self, page):
        await page.close()
        self.assertEqual([], page.exceptions)

    async def select(self, path):
        await self.page.click(f"document.querySelector('[data-path={json.dumps(path)}]')")

    def rows(self):
        return self.page.js("[...document.querySelectorAll('.tree [role=treeitem]')].map(e => e.dataset.path)")

    def error(self):
        return self.page.until("document.querySelector('.error-note')?.dataset.code")


class StatusView(PageTest):
    async def test_has_one_verdict_and_what_to_do(self):
        page = await self.open("status")
        await page.until("document.querySelector('#verdict')")
        status = json.loads(ctl("--json", "status", check=False).stdout)
        words = {"well": "All is well", "warning": "Something needs attention", "critical": "Something is wrong"}
        self.assertIn(words[status["level"]], await page.text("#verdict"))
        text = await page.text()
        self.assertGreater(len(status["findings"]), 0)
        for finding in status["findings"]:
            self.assertIn(finding["advice"], text)

    async def test_has_a_card_for_each_topic(self):
        page = await self.open("status")
        await page.until_text("Alarms to the agent")
        text = await page.text()
        for part in ("Map\n", "8 folders, 11 entries", "Services", "loader", "Event buffer", "Files that wait", "Space"):
            self.assertIn(part, text)

    async def test_follows_the_state(self):
        page = await self.open("status")
        await page.until_text("8 folders")
        ctl("map", "remove", "--yes")
        await page.until_text("No map is loaded.")

    async def test_asks_nothing_while_nobody_looks(self):
        page = await self.open("status")
        await page.until_text("8 folders")
        await page.js("(() => { window.asked = 0; const spawn = cockpit.spawn; cockpit.spawn = (...a) => { asked += 1; return spawn(...a); };"
                      "Object.defineProperty(cockpit, 'hidden', { value: true, configurable: true });"
                      "cockpit.dispatchEvent('visibilitychange'); })()")
        await page.js("new Promise(done => setTimeout(done, 11000))")
        self.assertEqual(0, await page.js("asked"))
        await page.js("(() => { Object.defineProperty(cockpit, 'hidden', { value: false }); cockpit.dispatchEvent('visibilitychange'); })()")
        await page.until("asked > 0")


class PermissionsView(PageTest):
    async def test_is_a_tree_that_keys_walk(self):
        page = await self.open("permissions")
        await page.until("document.querySelector('[data-path=Private]')")
        await page.js("document.querySelector('.tree').focus()")
        for key in ("Home", "ArrowDown", "ArrowRight"):
            await page.press(key)
        await page.until("document.querySelector('[data-path=\"Shared/Design\"]')")
        self.assertEqual(["Private", "Shared", "Shared/Design", "Shared/Finance"], await self.rows())
        await page.press("ArrowDown")
        await page.press("Enter")
        await page.until_text("Shared/Design", "#folder")
        self.assertEqual("#/permissions?path=Shared%2FDesign", await page.js("location.hash"))
        await page.press("ArrowRight")
        await page.until("document.querySelector('[data-path=\"Shared/Design/Drafts\"]')")
        self.assertEqual("true", await page.js("document.querySelector('[data-path=\"Shared/Design\"]').getAttribute('aria-expanded')"))
        await page.press("ArrowLeft")
        await page.until("!document.querySelector('[data-path=\"Shared/Design/Drafts\"]')")
        await page.press("ArrowLeft")
        await page.until("document.querySelector('.tree__row--active').dataset.path === 'Shared'")

    async def test_says_how_many_folders_and_whose_entries(self):
        page = await self.open("permissions?path=Shared/Design/Drafts")
        await page.until("document.querySelector('[data-path=\"Shared/Design/Drafts\"]')")
        row = "document.querySelector('[data-path=%s]').innerText"
        self.assertIn("inherits", await page.js(row % '"Shared/Design/Drafts"'))
        design = await page.js(row % '"Shared/Design"')
        self.assertIn("3 own entries, 3 folders", design.replace("\n", " "))

    async def test_shows_where_entries_come_from(self):
        page = await self.open("permissions?path=Shared/Design/Drafts")
        await page.until_text("/Shared/Design", ".source")
        self.assertIn("anna (1005)", await page.text())
        await page.click_text("/Shared/Design")
        await page.until_text("own entries", ".source")
        await page.until("location.hash === '#/permissions?path=Shared%2FDesign'")

    async def test_takes_paths_as_people_type_them(self):
        page = await self.open("permissions")
        await page.fill("Path", "\\Shared\\Finance")
        await page.until("location.hash.endsWith('path=Shared%2FFinance')")
        await page.until("document.querySelector('[aria-selected=true]')?.dataset.path === 'Shared/Finance'")

    async def test_says_that_a_folder_is_not_in_the_map(self):
        page = await self.open("permissions?path=Shared/Design/Nowhere")
        await page.until_text("The map does not have Shared/Design/Nowhere. /Shared/Design stands in for it")
        self.assertEqual("not-in-map", await self.error())

    async def test_finds_folders(self):
        page = await self.open("permissions")
        await page.fill("Find folders", "GALL")
        await page.until_text("1 folder", "#matches")
        await page.click_text("Shared/Design/Gallery")
        await page.until("document.querySelector('[aria-selected=true]')?.dataset.path === 'Shared/Design/Gallery'")
        await page.fill("Find folders", "no such thing")
        await page.until_text("No folder has this in its name.")

    async def test_shows_the_tree_as_a_user(self):
        page = await self.open("permissions?path=Shared/Design/Board&as=ben")
        await page.until_text("not seen", "[data-path=\"Shared/Design/Board\"]")
        await page.until_text("r----", "[data-path=\"Shared/Design\"]")
        await page.fill("As user", "anna")
        await page.until_text("rwd--", "[data-path=\"Shared/Design\"]")
        self.assertIn("as=anna", await page.js("location.hash"))

    async def test_says_why(self):
        page = await self.open("permissions?path=Shared/Design&tab=why&user=ben&op=write")
        self.assertEqual("refused", await page.until("document.querySelector('[data-verdict]')?.dataset.verdict"))
        answer = json.loads(ctl("--json", "check", "--user", "ben", "write", "Shared/Design", check=False).stdout)
        text = await page.text(".why")
        self.assertIn(answer["reason"], text)
        self.assertIn("write for Group 9011 on", text)
        self.assertIn("power user", text)
        self.assertFalse(await page.js("!!document.querySelector('.error-note')"))  # a refusal is an answer
        await page.choose("Operation", "read")
        await page.until("document.querySelector('[data-verdict]')?.dataset.verdict === 'granted'")
        self.assertIn("op=read", await page.js("location.hash"))

    async def test_says_who_can(self):
        page = await self.open("permissions?path=Shared/Design&tab=who&op=read")
        await page.until_text("3 of 3 users may", ".who")
        text = await page.text(".who")
        for part in ("anna", "ben", "carol", "administrator", "9011"):
            self.assertIn(part, text)
        await page.choose("Operation", "write")
        await page.until_text("May not: 1 user", ".who")

    async def test_compares_two_users(self):
        page = await self.open("permissions?path=Shared&tab=compare&user=anna&other=ben")
        await page.until_text("differs")
        rows = await page.js("[...document.querySelectorAll('[aria-label=Compare] tbody tr')].map(r => r.innerText)")
        self.assertIn("rwd--", rows[0])
        self.assertIn("r----", rows[0])
        self.assertIn("differs", rows[0])

    async def test_notices_another_map_and_keeps_the_path(self):
        page = await self.open("permissions?path=Shared/Design")
        await page.until("document.querySelector('[data-path=\"Shared/Finance\"]')")
        ctl("map", "import", "/scratch/size.json", "/scratch/data.json")
        await self.select("Shared/Finance")
        await page.until("document.querySelector('#map-changed')")
        await page.click_text("Reload")
        await page.until("!document.querySelector('#map-changed')")
        await page.until("document.querySelector('[aria-selected=true]')?.dataset.path === 'Shared/Finance'")

    async def test_notices_another_map_while_nobody_clicks_and_asks_anew(self):
        page = await self.open("permissions?path=Shared/Design&tab=why&user=ben&op=read&as=ben")
        await page.until("document.querySelector('[data-verdict=granted]')")
        await page.until_text("r----", "[data-path=\"Shared/Design\"]")
        make_map([{"DIR": "Shared", "children": [{"DIR": "Design", "users": {"1006": 2}}]}])
        await page.until("document.querySelector('#map-changed')")
        self.assertTrue(await page.js("!!document.querySelector('[data-verdict=granted]')"))
        await page.click_text("Reload")
        await page.until("document.querySelector('[data-verdict=refused]')")
        seen = json.loads(ctl("--json", "effective", "--user", "ben", "Shared", "--children").stdout)["folders"][0]
        self.assertNotEqual("r----", seen["rights"])
        await page.until_text(seen["rights"], "[data-path=\"Shared/Design\"]")
        await page.until("!document.querySelector('#map-changed')")

    async def test_keeps_what_was_there_until_the_answer_comes(self):
        page = await self.open("permissions?path=Shared/Design")
        await page.until_text("own entries", ".source")
        with slow_tool("map acl /Shared/Design/Drafts", "/scratch/go"):
            await page.fill("Path", "Shared/Design/Drafts")
            await page.until_text("Shared/Design/Drafts", "#folder")
            await page.until("document.querySelector('.pending')")
            self.assertIn("own entries", await page.text(".source"))
            open("/scratch/go", "w").close()
            await page.until_text("Inherited from", ".source")

    async def test_drops_the_answer_to_an_earlier_question(self):
        page = await self.open("permissions")
        with slow_tool("map find -- Finance", "/scratch/go"):
            await page.fill("Find folders", "Finance")
            await page.until("document.querySelector('.find .pending')")
            await page.fill("Find folders", "Gallery")
            await page.until_text("Shared/Design/Gallery", ".results")
            open("/scratch/go", "w").close()
            while not os.path.exists("/scratch/go.answered"):
                await asyncio.sleep(.02)
        await page.fill("Find folders", "Board")
        await page.until_text("Shared/Design/Board", ".results")
        self.assertNotIn("Finance", await page.text(".results"))

    async def test_cancels_a_tree_that_takes_long(self):
        with slow_tool("map tree / --children", "/scratch/go"):
            page = await self.open("permissions")
            await page.click_text("Cancel")
            await page.until("document.querySelector('.error-note[data-code=cancelled]')")
        await page.click_text("Try again")
        await page.until("document.querySelector('[data-path=Shared]')")
        await page.until("!document.querySelector('.error-note')")

    async def test_has_names_of_any_kind(self):
        wide = [{"DIR": name} for name in ("<b>x<b>", "caf\u00e9", "a & b", "--children", "-x", "100%")]
        make_map(wide)
        page = await self.open("permissions")
        await page.until("document.querySelectorAll('.tree [role=treeitem]').length === 6")
        self.assertEqual(0, await page.js("document.querySelectorAll('.tree b').length"))
        for name in ("<b>x<b>", "caf\u00e9", "a & b", "100%", "--children", "-x"):
            await self.select(name)
            await page.until_text(name, "#folder")
            await page.until_text("Inherited from", ".source")
        self.assertEqual("", await page.text(".error-note"))


def make_map(children):
    """Makes a map of these folders current."""
    write_pair(children, "/scratch/s.json", "/scratch/d.json")
    ctl("map", "import", "--trust", "/scratch/s.json", "/scratch/d.json")


def write_pair(children, size_file, data_file):
    sums = {"folders": 0, "aces": 0, "bytes": 0}

    def item(folder):
        users, groups = folder.get("users", {}), folder.get("groups", {})
        below = folder.get("children", [])
        sums["folders"] += 1
        sums["aces"] += len(users) + len(groups)
        sums["bytes"] += len(folder["DIR"].encode()) + 1
        made = {"DIR": folder["DIR"], "ACL": [{"NUMUSERS": len(users)}, {"NUMGROUPS": len(groups)}, {"USERS": users}, {"GROUPS": groups}]}
        made["CHILDREN"] = [{"NUMCHILDREN": len(below)}] + [item(each) for each in below]
        return made

    data = [{"NUMCHILDREN": 1}, item({"DIR": "/", "groups": {"9003": 1}, "children": children})]
    size = {"MAPNAME": "test", "VERSION": "1.0", "GENERATIONNUM": 7, "TIMESTAMP": 1700000000,
            "TOTALFSELEMS": sums["folders"], "TOTALACES": sums["aces"], "TOTALNAMELEN": sums["bytes"]}
    for name, document in ((size_file, size), (data_file, data)):
        with open(name, "w") as file:
            json.dump(document, file)


class WideFolders(PageTest):
    async def test_load_page_by_page_as_they_are_scrolled(self):
        make_map([{"DIR": f"folder {number:05}"} for number in range(1000)])
        page = await self.open("permissions")
        await page.until("document.querySelector('[data-path=\"folder 00000\"]')")
        self.assertLess(await page.js("document.querySelectorAll('.tree [role=treeitem]').length"), 60)
        await page.js("document.querySelector('.tree').focus()")
        for _ in range(6):
            await page.press("End")
            await page.js("new Promise(done => setTimeout(done, 300))")
        await page.until("(document.querySelector('.tree').dispatchEvent(new Event('scroll')), document.querySelector('[data-path=\"folder 00999\"]'))")
        self.assertLess(await page.js("document.querySelectorAll('.tree [role=treeitem]').length"), 60)

    async def test_ask_once_when_the_next_page_fails(self):
        make_map([{"DIR": f"folder {number:05}"} for number in range(1000)])
        page = await self.open("permissions")
        await page.until("document.querySelector('[data-path=\"folder 00000\"]')")
        with replaced_tool(f"#!/bin/sh\ncase \"$*\" in *--after*) echo x >>/scratch/calls; exit 2;; esac\nexec {os.readlink(TOOL)} \"$@\"\n"):
            await page.js("document.querySelector('.tree').focus()")
            await page.press("End")
            self.assertEqual("unreadable", await self.error())
            # Another question, which is answered later than one more page would have been asked for.
            await page.fill("Path", "folder 00001")
            await page.until_text("Inherited from", ".source")
            with open("/scratch/calls") as calls:
                self.assertEqual(1, len(calls.readlines()))
        await page.click_text("Try again")
        await page.until("!document.querySelector('.error-note')")

    async def test_show_a_folder_beyond_the_first_page(self):
        make_map([{"DIR": f"folder {number:05}", "children": [{"DIR": "in"}]} for number in range(1000)])
        page = await self.open("permissions?path=folder%2000900/in")
        await page.until("document.querySelector('[aria-selected=true]')?.dataset.path === 'folder 00900/in'")


def hand_over(children):
    """A map comes from the agent; the loader holds one that removes more than a tenth of the folders."""
    with open("/etc/tavrix/tavrix.conf", "w") as file:
        file.write("[LOADER]\nhold removed folders pct = 10\n")
    os.makedirs("/scratch/inbox", exist_ok=True)
    write_pair(children, "/scratch/inbox/size.json", "/scratch/inbox/data.json")
    loader = subprocess.run([LOADER, "--dir", "/scratch/inbox", "--settings", "/etc/tavrix/tavrix.conf", "--once"],
                            capture_output=True, text=True)
    return loader.stderr


class Million(PageTest):
    """A million folders. It writes how long answers take, beside the bare call of the tool, as a table of docs/page.md."""

    TIMES = 50
    FIRST = {"status": ("#verdict", ["status"]),
             "permissions?path=Shared": ("[data-path=Shared]", ["map", "tree", "/", "--children"]),
             "maps": ("[aria-label='Kept maps']", ["map", "history"]),
             "history?since=365d": ("[aria-label=History]", ["history", "search", "--since=365d"])}

    def setUp(self):
        super().setUp()
        subprocess.run(["tavrix-sample-tree", "--folders", "1000000", "/scratch/s.json", "/scratch/d.json"], check=True, capture_output=True)
        ctl("--no-progress", "map", "import", "--trust", "/scratch/s.json", "/scratch/d.json")
        self.table = []

    async def took(self, action, ready):
        """Milliseconds from an action to what it shows, as the browser sees it."""
        return await self.page.js(f"""new Promise(done => {{
            const start = performance.now();
            {action};
            const look = () => {ready} ? done(performance.now() - start) : requestAnimationFrame(look);
            look();
        }})""")

    async def first_content(self, place, selector):
        """Milliseconds from the address to what it shows."""
        look = f"(function look() {{ if (document.querySelector({json.dumps(selector)})) window.firstAt = performance.now(); else requestAnimationFrame(look); }})()"
        self.page = page = await self.browser.page(ROOT + place, look)
        time_of_it = await page.until("window.firstAt")
        await self.leave(page)
        return time_of_it

    @staticmethod
    def bare(*words):
        start = time.perf_counter()
        ctl("--json", *words, check=False)  # "status" says with its code how the machine is
        return (time.perf_counter() - start) * 1000

    def add_row(self, name, times, bare):
        def told(values):
            values = sorted(values)
            return f"{values[len(values) // 2]:.0f} ms | {values[-1]:.0f} ms"
        self.table.append(f"| {name} | {len(times)} | {told(times)} | {told(bare) if bare else ' | '} |")

    @staticmethod
    def row(path):
        return f"document.querySelector('[data-path={json.dumps(path)}]')"

    @staticmethod
    def children_of(path):
        return json.loads(ctl("--json", "map", "tree", path, "--children").stdout)["children"]

    async def parents(self):
        """Folders with folders in them, each behind a click on the way to it, which is open meanwhile."""
        count = 0
        for top in self.children_of("Shared"):
            await self.toggle(f"Shared/{top['name']}", "true")
            for child in self.children_of(f"Shared/{top['name']}"):
                if child["child_count"] > 0 and count < self.TIMES:
                    count += 1
                    path = f"Shared/{top['name']}/{child['name']}"
                    await self.page.until(self.row(path))
                    await self.quiet()
                    yield path
            await self.toggle(f"Shared/{top['name']}", "false")
            if count == self.TIMES:
                return

    async def toggle(self, path, state):
        await self.page.until(self.row(path))
        await self.page.js(f"{self.row(path)}.querySelector('.tree__toggle').click()")
        await self.page.until(f"{self.row(path)}?.ariaExpanded === '{state}'")

    async def quiet(self):
        await self.page.until("!document.querySelector('.pending') && !document.querySelector('.tree [aria-busy=true]')")

    async def tree(self, options=""):
        page = await self.open("permissions?path=Shared" + options)
        await page.until(self.row("Shared"))
        await self.toggle("Shared", "true")

    async def measure_folders(self):
        chosen, entries, opened, acl, tree = [], [], [], [], []
        await self.tree()
        async for path in self.parents():
            row, quoted = self.row(path), json.dumps(path)
            title = f"document.querySelector('#folder').innerText === {quoted} && {row}?.ariaSelected === 'true'"
            chosen.append(await self.took(f"{row}.click()", title))
            await self.quiet()
            # Another one in between, so that the entries of this one are new.
            await self.page.fill("Path", "Shared")
            await self.page.until("document.querySelector('.source')?.dataset.of === '/Shared'")
            entries.append(await self.took(f"{row}.click()", f"document.querySelector('.source')?.dataset.of === '/' + {quoted}"))
            await self.quiet()
            below = f"document.querySelector({json.dumps('[data-path^=' + json.dumps(path + '/') + ']')})"
            opened.append(await self.took(f"{row}.querySelector('.tree__toggle').click()", below))
            await self.toggle(path, "false")
            acl.append(self.bare("map", "acl", "/" + path))
            tree.append(self.bare("map", "tree", "/" + path, "--children"))
        self.add_row("a folder is chosen, until its name stands", chosen, None)
        self.add_row("its entries", entries, acl)
        self.add_row("a folder is opened for the first time", opened, tree)

    async def measure_why(self):
        why, check = [], []
        await self.tree("&tab=why&user=ben&op=write")
        async for path in self.parents():
            ready = f"document.querySelector('.why')?.dataset.of.endsWith({json.dumps(path)})"
            why.append(await self.took(f"{self.row(path)}.click()", ready))
            check.append(self.bare("check", "--explain", "--user=ben", "write", "/" + path))
        self.add_row("why a user may or may not write in it", why, check)

    async def measure_rights(self):
        seen, effective = [], []
        await self.tree("&as=ben")
        async for path in self.parents():
            rights = f"document.querySelector({json.dumps('[data-path^=' + json.dumps(path + '/') + '] .rights')})"
            seen.append(await self.took(f"{self.row(path)}.querySelector('.tree__toggle').click()", rights))
            await self.toggle(path, "false")
            effective.append(self.bare("effective", "--user=ben", "/" + path, "--children"))
        self.add_row("the rights of a user on the folders in it", seen, effective)

    async def measure_search(self):
        found, find = [], []
        page = await self.open("permissions")
        button = "[...document.querySelectorAll('.find button')].find(e => e.innerText.trim() === 'Search')"
        for number in range(self.TIMES):
            text = f"drawings {number}"
            await page.until("document.querySelector('.find input')")
            await page.js("(() => { const e = document.querySelector('.find input'); e.focus(); e.select(); })()")
            await page.call("Input.insertText", text=text)
            found.append(await self.took(f"{button}.click()", f"document.querySelector('#matches')?.dataset.of === {json.dumps(text)}"))
            find.append(self.bare("map", "find", "--", text))
        self.add_row("a search through all names", found, find)

    async def test_is_answered_at_once(self):
        for place, (selector, words) in self.FIRST.items():
            times = [await self.first_content(place, selector) for _ in range(10)]
            self.add_row(f"first content of {place.split('?')[0]}", times, [self.bare(*words) for _ in range(10)])
        await self.measure_folders()
        await self.measure_why()
        await self.measure_rights()
        await self.measure_search()
        table = "\n".join(["| from the click, or the address, to the answer | times | median | worst | the tool alone, median | worst |",
                           "|---|---|---|---|---|---|", *self.table]) + "\n"
        print("\n" + table, file=sys.stderr)
        with open(os.environ["TAVRIX_PAGE_TABLE"], "w") as file:
            file.write(table)

    async def test_is_scrolled_and_searched(self):
        page = await self.open("permissions?path=Shared")
        await page.until(self.row("Shared"))
        await self.toggle("Shared", "true")
        tops = self.children_of("Shared")
        for top in reversed(tops):  # those above stay in sight
            await self.toggle(f"Shared/{top['name']}", "true")
            await self.quiet()
        await page.js("document.querySelector('.tree').focus()")
        last = f"Shared/{tops[-1]['name']}/{self.children_of('Shared/' + tops[-1]['name'])[-1]['name']}"
        while not await page.js(f"!!{self.row(last)}"):
            await page.press("PageDown")
        self.assertLess(await page.js("document.querySelectorAll('.tree [role=treeitem]').length"), 70)
        await page.fill("Find folders", "drawings")
        await page.until_text("the first 200 are shown", "#matches")
        self.assertEqual(200, await page.js("document.querySelectorAll('.results li').length"))

    async def test_stand_in_one_folder(self):
        subprocess.run(["tavrix-sample-tree", "--folders", "1000000", "--fan-out", "1000000", "/scratch/s.json", "/scratch/d.json"],
                       check=True, capture_output=True)
        ctl("--no-progress", "map", "import", "--trust", "/scratch/s.json", "/scratch/d.json")
        page = await self.open("permissions?path=Shared&as=ben")
        await page.until(self.row("Shared"))
        await self.toggle("Shared", "true")
        first = self.children_of("Shared")
        await page.until(self.row(f"Shared/{first[0]['name']}"))
        await page.js("document.querySelector('.tree').focus()")
        await page.press("End")
        behind = json.loads(ctl("--json", "map", "tree", "Shared", "--children", "--after", first[-1]["name"]).stdout)["children"]
        await page.until(f"document.querySelector('.tree').scrollTop > 0 && {self.row('Shared/' + behind[0]['name'])}?.querySelector('.rights')")
        self.assertLess(await page.js("document.querySelectorAll('.tree [role=treeitem]').length"), 70)


class MapsView(PageTest):
    def setUp(self):
        shutil.rmtree("/etc/tavrix/maps", ignore_errors=True)
        super().setUp()

    async def test_shows_the_current_map_and_those_before(self):
        make_map([{"DIR": "Shared"}])
        page = await self.open("maps")
        await page.until_text("2 folders, 1 entry")
        kept = len(json.loads(ctl("--json", "map", "history").stdout)["maps"])
        self.assertGreaterEqual(kept, 2)
        await page.until(f"document.querySelectorAll('[aria-label=\"Kept maps\"] tbody tr').length === {kept}")
        text = await page.text("[aria-label='Kept maps']")
        self.assertIn("in force", text)
        self.assertIn("imported", text)
        self.assertIn("No map was refused.", await page.text())

    async def test_shows_what_changed_since(self):
        number = json.loads(ctl("--json", "map", "history").stdout)["maps"][-1]["map"]
        make_map([{"DIR": "Shared", "users": {"1005": 3}}])
        page = await self.open("maps")
        await page.click_text(f"Compare map {number}")
        await page.until(f"location.hash === '#/maps?diff=kept-{number}'")
        await page.until_text("Removed folders", ".difference")
        await page.until_text("anna (1005)", ".difference")
        await page.until_text("Who gains, who loses", ".difference")
        await page.click_text("Close")
        await page.until("!document.querySelector('.difference')")

    async def test_goes_back_to_a_map_after_a_question(self):
        number = json.loads(ctl("--json", "map", "history").stdout)["maps"][-1]["map"]
        make_map([{"DIR": "Shared"}])
        page = await self.open("maps")
        await page.click_text(f"Go back to map {number}")
        await page.until_text("becomes the current map again", "[role=dialog]")
        self.assertEqual([], await page.violations(AXE))
        await page.click_text("Cancel")
        await page.until("!document.querySelector('[role=dialog]')")
        self.assertEqual(2, json.loads(ctl("--json", "map", "info").stdout)["map"]["folders"])
        await page.click_text(f"Go back to map {number}")
        await page.click(f"[...document.querySelectorAll('[role=dialog] button')].find(e => e.innerText === 'Go back to map {number}')")
        await page.until_text("8 folders, 11 entries")
        self.assertEqual(8, json.loads(ctl("--json", "map", "info").stdout)["map"]["folders"])

    async def test_shows_a_held_map_and_approves_it(self):
        hand_over([{"DIR": "Shared"}])
        page = await self.open("maps")
        await page.until_text("A map is held until somebody approves it", "#held")
        held = json.loads(ctl("--json", "map", "history").stdout)["held"]
        self.assertIn(held["reason"], await page.text("#held"))
        await page.until("!document.querySelector('.pending')")
        await page.picture(f"{PICTURES}/page-held.png")
        for is_dark in (False, True):
            if is_dark:
                await page.dark()
            self.assertEqual([], await page.violations(AXE))
        await page.click_text("Show what it changes")
        await page.until_text("Shared/Design", ".difference")
        await page.click_text("Approve")
        await page.click("[...document.querySelectorAll('[role=dialog] button')].find(e => e.innerText === 'Approve')")
        await page.until("!document.querySelector('#held')")
        await page.until_text("2 folders, 1 entry")

    async def test_rejects_a_held_map(self):
        hand_over([{"DIR": "Shared"}])
        page = await self.open("maps")
        await page.click_text("Reject")
        await page.until_text("The current map stays.", "[role=dialog]")
        await page.click("[...document.querySelectorAll('[role=dialog] button')].find(e => e.innerText === 'Reject')")
        await page.until("!document.querySelector('#held')")
        self.assertEqual(8, json.loads(ctl("--json", "map", "info").stdout)["map"]["folders"])
        self.assertNotIn("held", json.loads(ctl("--json", "map", "history").stdout))

    async def test_approves_nothing_that_nobody_looked_at(self):
        hand_over([{"DIR": "Shared"}])
        page = await self.open("maps")
        await page.click_text("Approve")
        await page.until("document.querySelector('[role=dialog]')")
        hand_over([{"DIR": "Private"}])
        await page.click("[...document.querySelectorAll('[role=dialog] button')].find(e => e.innerText === 'Approve')")
        await page.until_text("another map is held: its checksum is", "[role=dialog]")
        self.assertEqual(8, json.loads(ctl("--json", "map", "info").stdout)["map"]["folders"])

    async def test_says_why_a_map_was_refused(self):
        os.makedirs("/var/lib/tavrix/maps", exist_ok=True)
        self.addCleanup(shutil.rmtree, "/var/lib/tavrix/maps")
        for name in ("size", "data"):
            with open(f"/var/lib/tavrix/maps/{name}.json", "w") as file:
                file.write("{")
        subprocess.run([LOADER, "--once"], capture_output=True)
        page = await self.open("maps")
        await page.until_text("1 refused map is kept. The current map stays.")
        pair = json.loads(ctl("--json", "map", "refused").stdout)["pairs"][0]
        text = await page.text()
        for part in (pair["reason"], pair["folder"], "size.json, 1 B; data.json, 1 B"):
            self.assertIn(part, text)
        lint = json.loads(ctl("--json", "map", "lint", *(f"{pair['folder']}/{name}.json" for name in ("size", "data")), check=False).stdout)
        rows = await page.js("[...document.querySelectorAll('.refused tbody tr')].map(row => row.innerText)")
        self.assertEqual(len(lint["findings"]), len(rows))
        for finding, row in zip(lint["findings"], rows):
            for part in ("Error", finding["file"], f"byte {finding['offset']}", finding["text"]):
                self.assertIn(part, row)
        await page.until("!document.querySelector('.pending')")
        await page.js("document.querySelector('.refused').scrollIntoView()")
        await page.picture(f"{PICTURES}/page-refused.png")
        for is_dark in (False, True):
            if is_dark:
                await page.dark()
            self.assertEqual([], await page.violations(AXE))

    async def test_says_that_an_action_failed_and_keeps_the_map(self):
        hand_over([{"DIR": "Shared"}])
        page = await self.open("maps")
        for button in ("Approve", "Reject"):
            await page.click_text(button)
            await page.until("document.querySelector('[role=dialog]')")
            with replaced_tool("#!/bin/sh\nkill -KILL $$\n"):
                await page.click(self.in_dialog(button))
                self.assertEqual("killed", await page.until("document.querySelector('[role=dialog] .error-note')?.dataset.code"))
            await page.click(self.in_dialog("Cancel"))
            await page.until("!document.querySelector('[role=dialog]')")
        self.assertEqual(8, json.loads(ctl("--json", "map", "info").stdout)["map"]["folders"])

    async def test_is_used_by_keys_alone(self):
        hand_over([{"DIR": "Shared"}])
        page = await self.open("maps")
        await page.until("document.querySelector('#held')")
        for wanted, then in (("Approve", "document.querySelector('[role=dialog]')"), ("Cancel", "!document.querySelector('[role=dialog]')"),
                             ("Reject", "document.querySelector('[role=dialog]')")):
            await self.reach(wanted)
            await page.press("Enter")
            await page.until(then)
        self.assertTrue(await page.until("document.querySelector('[role=dialog]').contains(document.activeElement)"))
        await page.press("Escape")
        await page.until("!document.querySelector('[role=dialog]')")
        self.assertIn("held", json.loads(ctl("--json", "map", "history").stdout))

    async def reach(self, text):
        """Presses Tab until the button has the focus."""
        for _ in range(60):
            await self.page.press("Tab")
            if await self.page.js(f"document.activeElement.innerText?.trim() === {json.dumps(text)}"):
                return
        self.fail(f"Tab does not reach {text}")

    @staticmethod
    def in_dialog(text):
        return f"[...document.querySelectorAll('[role=dialog] button')].find(e => e.innerText === {json.dumps(text)})"


class HistoryView(PageTest):
    """The history has 20,000 records of the last year, which world.sh makes."""

    ROWS = "[...document.querySelectorAll('[aria-label=History] tbody tr')]"

    @staticmethod
    def ask(*words):
        return json.loads(ctl("--json", "history", *words).stdout)

    async def test_shows_the_newest_first_and_goes_on(self):
        page = await self.open("history?since=365d")
        await page.until(f"{self.ROWS}.length === 200")
        newest = self.ask("search", "--since", "365d", "--limit", "1")["records"][0]
        self.assertIn(newest["path"], await page.js(f"{self.ROWS}[0].innerText"))
        await page.click_text("Show more")
        await page.until(f"{self.ROWS}.length === 400")

    async def test_asks_for_a_short_period_at_first(self):
        page = await self.open("history")
        await page.until("document.body?.innerText.includes('Nothing happened that fits.') || document.querySelector('[aria-label=History]')")
        self.assertEqual("1d", await page.js("document.querySelectorAll('select')[1].value"))

    async def test_filters_by_path_user_and_operation(self):
        some = self.ask("search", "--since", "365d", "--op", "delete", "--limit", "1")["records"][0]
        folder = some["path"].rsplit("/", 1)[0].removeprefix("/tavrix/")
        page = await self.open("history?since=365d")
        await page.until(f"{self.ROWS}.length === 200")
        await page.choose("What", "delete")
        await page.until("location.hash.includes('op=delete')")
        await page.fill("Path", folder)
        await page.fill("User", str(some["uid"]))
        expected = self.ask("search", "--since", "365d", "--op", "delete", "--path", folder, "--user", str(some["uid"]))["records"]
        await page.until(f"{self.ROWS}.length === {len(expected)}")
        self.assertTrue(all("deleted" in row for row in await page.js(f"{self.ROWS}.map(row => row.innerText)")))

    async def test_shows_the_life_of_an_object(self):
        record = self.ask("search", "--since", "365d", "--op", "rename", "--limit", "1")["records"][0]
        page = await self.open("history?since=365d&op=rename")
        await page.until("document.querySelector('.activity') && !document.querySelector('.pending')")  # nothing moves any more
        await page.click(f"{self.ROWS}[0]?.querySelector('button')")
        life = self.ask("file", record["path"])["lives"][0]
        await page.until(f"document.querySelectorAll('.life li').length === {len(life['steps'])}")
        text = await page.text(".life")
        for step in life["steps"]:
            self.assertIn(step["path"], text)
        await page.click_text("Close")
        await page.until("!document.querySelector('.life')")

    async def test_names_the_node_of_each_record_of_a_cluster(self):
        heads = "[...document.querySelectorAll('[aria-label=History] th')].map(head => head.innerText)"
        page = await self.open("history?since=365d")
        await page.until(f"{self.ROWS}.length === 200")
        self.assertNotIn("Node", await page.js(heads))
        now = time.time_ns() // 1000
        with sqlite3.connect("/var/lib/tavrix/history/history.db") as database:
            dump = database.execute("INSERT INTO dumps (kind, name, inode, mtime, size, hash, taken, records, newest, node) "
                                    "VALUES (0, 'events.beta.pending_1', 1, 1, 1, x'be', ?, 1, ?, 'beta')", (now, now)).lastrowid
            database.execute("INSERT INTO records (time, op, folder, uid, pid, path, dump) VALUES (?, 10, 0, 1005, 1, '/tavrix/of beta', ?)", (now, dump))
        database.close()
        try:
            page = await self.open("history?since=2h")
            await page.until(f"{self.ROWS}.length > 0")
            self.assertIn("Node", await page.js(heads))
            self.assertIn("beta", await page.js(f"{self.ROWS}[0].innerText"))
            await page.click(f"{self.ROWS}[0].querySelector('button')")
            await page.until_text("on beta", ".life")
        finally:
            with sqlite3.connect("/var/lib/tavrix/history/history.db") as database:
                database.execute("DELETE FROM records WHERE dump = ?", (dump,))
                database.execute("DELETE FROM dumps WHERE id = ?", (dump,))
            database.close()

    async def test_shows_the_activity_as_a_picture(self):
        page = await self.open("history?since=365d")
        await page.until("document.querySelectorAll('.activity rect').length > 10")
        self.assertIn("events by day", await page.js("document.querySelector('.activity').getAttribute('aria-label')"))

    async def test_marks_mass_changes(self):
        with sqlite3.connect("/var/lib/tavrix/history/history.db") as database:
            place = database.execute("INSERT INTO notices (time, kind, uid, count, text) VALUES (?, 'mass-delete', 1005, 2000, ?)",
                                     (time.time_ns() // 1000, "anna deleted 2000 files in 60 seconds")).lastrowid
        database.close()
        try:
            page = await self.open("history")
            await page.until_text("anna deleted 2000 files in 60 seconds", "[data-kind=mass-delete]")
            self.assertEqual([], await page.violations(AXE))
        finally:
            with sqlite3.connect("/var/lib/tavrix/history/history.db") as database:
                database.execute("DELETE FROM notices WHERE id = ?", (place,))
            database.close()

    async def test_cancels_a_search_that_takes_long(self):
        with slow_tool("history search", "/scratch/go"):
            page = await self.open("history?since=365d")
            await page.click_text("Cancel")
            await page.until("document.querySelector('.error-note[data-code=cancelled]')")
        await page.click_text("Try again")
        await page.until(f"{self.ROWS}.length === 200")

    async def test_saves_exactly_what_is_filtered(self):
        page = await self.open("history?since=365d&op=delete")
        await page.until(f"{self.ROWS}.length > 0")
        await page.js("(() => { const make = URL.createObjectURL; URL.createObjectURL = blob => { blob.text().then(text => window.saved = text); return make.call(URL, blob); }; })()")
        await page.click_text("Save as CSV")
        await page.until("window.saved")
        self.assertEqual(ctl("history", "search", "--since=365d", "--op=delete", "--csv").stdout, await page.js("saved"))

    async def test_says_that_there_is_no_history(self):
        os.rename("/var/lib/tavrix/history", "/var/lib/tavrix/away")
        try:
            page = await self.open("history")
            await self.error()
            self.assertEqual(0, await page.js(f"{self.ROWS}.length"))
        finally:
            os.rename("/var/lib/tavrix/away", "/var/lib/tavrix/history")

    async def test_can_be_used_dark_and_light(self):
        record = self.ask("search", "--since", "365d", "--op", "rename", "--limit", "1")["records"][0]
        page = await self.open("history?since=365d&file=" + urllib.parse.quote(record["path"], safe=""))
        await page.until(f"{self.ROWS}.length === 200 && document.querySelector('.life li') && document.querySelector('.activity')")
        await page.picture(f"{PICTURES}/page-history.png")
        for is_dark in (False, True):
            if is_dark:
                await page.dark()
            with self.subTest(dark=is_dark):
                self.assertEqual([], await page.violations(AXE))


class Errors(PageTest):
    async def test_the_tool_is_missing(self):
        target = os.readlink(TOOL)
        os.unlink(TOOL)
        try:
            page = await self.open("permissions")
            self.assertEqual("tool-missing", await self.error())
            self.assertIn("Install the package tavrix-tools", await page.text())
        finally:
            os.symlink(target, TOOL)
        await page.click_text("Try again")
        await page.until("document.querySelector('[data-path=Shared]')")
        await page.until("!document.querySelector('.error-note')")

    async def test_there_is_no_map(self):
        ctl("map", "remove", "--yes")
        page = await self.open("permissions")
        self.assertEqual("no-map", await self.error())
        await page.until_text("There is no permission map yet.")

    async def test_there_is_no_group_map(self):
        os.unlink("/etc/tavrix/groupmap_refresh")
        page = await self.open("permissions?path=Shared&tab=who")
        await page.until("[...document.querySelectorAll('.error-note')].some(e => e.dataset.code === 'no-group-map')")
        await page.until("document.querySelector('[data-path=Shared]')")

    async def test_the_settings_are_missing(self):
        ctl("config", "remove", "--yes")
        try:
            page = await self.open("status")
            await page.until("document.querySelector('#verdict')")
            self.assertIn("Something is wrong", await page.text("#verdict"))
            self.assertIn("settings", await page.text())
        finally:
            ctl("config", "load", SOURCES + "/packaging/tavrix.conf")

    async def test_the_tool_is_killed(self):
        with replaced_tool("#!/bin/sh\nkill -KILL $$\n"):
            page = await self.open("maps")
            self.assertEqual("killed", await self.error())
            await page.until_text("The question ended before an answer.")

    async def test_the_answer_is_no_document(self):
        with replaced_tool("#!/bin/sh\necho '<html>'\n"):
            page = await self.open("maps")
            self.assertEqual("unreadable", await self.error())
            await page.until_text("There is no answer.")
            detail = "document.querySelector('.error-note pre')?.checkVisibility({ visibilityProperty: true, opacityProperty: true, contentVisibilityAuto: true })"
            self.assertFalse(await page.js(detail))
            await page.click_text("Technical details")
            await page.until(detail)
            self.assertIn("<html>", await page.text(".error-note pre"))

    async def test_there_is_no_such_user(self):
        page = await self.open("permissions?path=Shared&tab=why&user=nobody-of-this-name")
        self.assertEqual("no-user", await self.error())
        self.assertNotIn("Granted", await page.text())

    async def test_a_slow_answer_can_be_cancelled(self):
        with replaced_tool("#!/bin/sh\nexec sleep 60\n"):
            page = await self.open("maps")
            await page.until("[...document.querySelectorAll('.pending')].every(e => e.innerText.includes('Cancel')) && document.querySelector('.pending')")
            waiting = await page.js("document.querySelectorAll('.pending').length")
            await page.click_text("Cancel")
            await page.until(f"document.querySelectorAll('.pending').length === {waiting - 1}")


class replaced_tool:
    """Another program in the place of tavrixctl."""

    def __init__(self, text):
        self.text = text

    def __enter__(self):
        self.target = os.readlink(TOOL)
        os.unlink(TOOL)
        with open(TOOL, "w") as file:
            file.write(self.text)
        os.chmod(TOOL, 0o755)

    def __exit__(self, *_):
        os.unlink(TOOL)
        os.symlink(self.target, TOOL)


class slow_tool(replaced_tool):
    """The tool, but calls that begin like this wait until a file is there, even when they are told to end."""

    def __init__(self, words, gate):
        for name in (gate, gate + ".answered"):
            if os.path.exists(name):
                os.unlink(name)
        super().__init__(f"""#!/bin/sh
case "$*" in "--json --no-progress {words}"*)
  trap '' TERM
  while [ ! -e {gate} ]; do sleep .05; done
  {os.readlink(TOOL)} "$@"
  touch {gate}.answered
  exit;;
esac
exec {os.readlink(TOOL)} "$@"
""")


class Everybody(PageTest):
    PLACES = {
        "status": "document.querySelector('#verdict')",
        "permissions?path=Shared/Design&as=ben": "document.querySelector('.source') && document.querySelector('[data-path=\"Shared/Design\"] .rights')",
        "permissions?path=Shared/Design&tab=why&user=ben&op=write": "document.querySelector('.why')",
        "permissions?path=Shared/Design&tab=who": "document.querySelector('.who')",
        "permissions?path=Shared&tab=compare&user=anna&other=ben": "document.querySelector('[aria-label=Compare]')",
        "permissions?path=Shared/Nowhere": "document.querySelector('.error-note')",
        "maps": "document.body?.innerText.includes('11 entries') && document.body.innerText.includes('No map was refused')",
    }
    MORE_PLACES = {
        "history?since=365d": "document.querySelector('.activity')",
        "maps?diff=kept-1": "document.querySelector('.difference')",
    }
    # The only commands that may be asked without a question to the user: none changes anything.
    QUESTIONS = {"status", "map tree", "map find", "map acl", "map info", "map history", "map refused", "map diff", "check", "who",
                 "effective", "groupmap show", "history search", "history report", "history file"}
    NAMES = ["status", "permissions", "why", "who", "compare", "missing", "maps"]

    def setUp(self):
        shutil.rmtree("/etc/tavrix/maps", ignore_errors=True)  # of tests before: the pictures are the same in any order
        super().setUp()

    async def test_can_use_every_view_dark_and_light(self):
        for place, ready in self.PLACES.items():
            page = await self.open(place)
            await page.until(ready)
            for is_dark in (False, True):
                if is_dark:
                    await page.dark()
                with self.subTest(place=place, dark=is_dark):
                    self.assertEqual([], await page.violations(AXE))

    # Everything that has a colour for its meaning: the meaning (PatternFly's class), the words, and whether a sign is
    # beside them.
    COLOURED = """[...document.querySelectorAll(
        '.pf-v6-c-label, .pf-v6-c-alert, .pf-v6-c-progress-stepper__step, .pf-v6-c-progress, .pf-v6-c-button.pf-m-danger')].map(each => ({
      meaning: ['success', 'danger', 'warning', 'info', 'custom'].find(one => each.classList.contains('pf-m-' + one)) ?? '',
      words: each.innerText.trim(), isLabel: each.classList.contains('pf-v6-c-label'),
      hasSign: each.querySelector('svg') !== null }))"""

    async def test_tells_nothing_by_colour_alone(self):
        hand_over([{"DIR": "Shared"}])
        meanings = {}
        for place, ready in {**self.PLACES, **self.MORE_PLACES}.items():
            page = await self.open(place)
            await page.until(ready)
            await page.until("!document.querySelector('.pending')")
            for each in await page.js(self.COLOURED):
                with self.subTest(place=place, words=each["words"]):
                    self.assertTrue(each["words"])
                    if each["isLabel"] and each["meaning"]:
                        self.assertTrue(each["hasSign"])
                        self.assertEqual(each["meaning"], meanings.setdefault(each["words"], each["meaning"]))
        self.assertGreater(len(set(meanings.values())), 1, meanings)

    async def test_changes_nothing_by_looking(self):
        places = {**self.PLACES, **self.MORE_PLACES}
        with replaced_tool(f"#!/bin/sh\necho \"$(id -u) $*\" >>/scratch/asked\nexec {os.readlink(TOOL)} \"$@\"\n"):
            for place, ready in places.items():
                page = await self.open(place)
                await page.until(ready)
                await page.until("!document.querySelector('.pending')")
        with open("/scratch/asked") as asked:
            lines = asked.read().splitlines()
        self.assertGreater(len(lines), len(places))
        for line in lines:
            self.assertTrue(any(line.startswith(f"0 --json --no-progress {words}") for words in self.QUESTIONS), line)

    async def test_finds_pictures_of_the_views(self):
        os.makedirs(PICTURES, exist_ok=True)
        for name, (place, ready) in zip(self.NAMES, self.PLACES.items()):
            page = await self.open(place)
            await page.until(ready)
            await page.until("!document.querySelector('.pending')")
            if name in ("status", "permissions", "why", "who", "compare", "maps"):
                await page.picture(f"{PICTURES}/page-{name}.png")
            if name == "permissions":
                await page.dark()
                await page.picture(f"{PICTURES}/page-permissions-dark.png")


class Texts(unittest.TestCase):
    """What the page says stands in texts.ts, so that a translation is one file."""

    WORDS = r"[A-Za-z]{2,}"
    IN_ELEMENT = re.compile(rf">([^<>{{}}=()]*{WORDS}[^<>{{}}=()]*)</")
    IN_ATTRIBUTE = re.compile(rf'\b(?:aria-label|title|label|placeholder|alt|valueText)="[^"]*{WORDS}[^"]*"')
    IN_CODE = re.compile(r"""(['"`])[A-Z](?:(?!\1)[^\n])*? [a-z]+(?:(?!\1)[^\n])*?\1""")  # a sentence

    def found(self, code):
        code = re.sub(r"//.*|/\*.*?\*/", "", code)
        return [match.group(0) for shape in (self.IN_ELEMENT, self.IN_ATTRIBUTE, self.IN_CODE) for match in shape.finditer(code)]

    def test_stand_in_one_file(self):
        files = [file for file in pathlib.Path(SOURCES, "page/src").rglob("*.ts*") if file.name != "texts.ts" and ".d." not in file.name]
        self.assertGreater(len(files), 20)
        for file in files:
            with self.subTest(file=file.name):
                self.assertEqual([], self.found(file.read_text()))

    def test_would_be_seen_elsewhere(self):
        for code in ("<b>Folders</b>", '<Card title="Folders">', "say('No such folder')", "say(`No ${kind} folder`)"):
            self.assertTrue(self.found(code), code)


class Login(PageTest):
    async def enter(self, user, superuser):
        before = ""
        if superuser:
            # An empty page has no store.
            before = (f"if (location.protocol === 'http:') {{ localStorage.setItem('superuser:{user}', '{superuser}');"
                      "localStorage.setItem('superuser-key', 'x'); }")
        self.page = page = await self.browser.page("about:blank", before)
        self.addAsyncCleanup(self.leave, page)
        await page.call("Network.clearBrowserCookies")  # of who was here before
        await page.call("Page.navigate", url=LOGIN)
        await page.until("document.querySelector('#login-user-input')?.offsetParent")
        for box, text in (("login-user-input", user), ("login-password-input", "secret")):
            await page.js(f"document.getElementById('{box}').focus()")
            await page.call("Input.insertText", text=text)
        await page.click("document.getElementById('login-button')")
        return page

    FRAME = "[...document.querySelectorAll('iframe')].find(f => f.src.includes('/tavrix/'))?.contentDocument?.body?.innerText ?? ''"

    PAGE = "[...document.querySelectorAll('iframe')].find(f => f.src.includes('/tavrix/')).contentWindow"

    async def go(self, place):
        await self.page.js(f"{self.PAGE}.location.hash = {json.dumps('#/' + place)}; 1")

    async def test_of_an_administrator_shows_every_view(self):
        hand_over([{"DIR": "Shared"}])
        page = await self.enter("carol", "sudo")
        await page.until(f"({self.FRAME}).includes('8 folders, 11 entries')", 60)
        for place, part in (("permissions?path=Shared/Design", "own entries"), ("permissions?path=Shared&tab=who", "3 of 3 users may"),
                            ("permissions?path=Shared/Design&tab=why&user=ben&op=write", "Refused"),
                            ("history?since=365d", "Save as CSV"), ("maps", "A map is held")):
            await self.go(place)
            await page.until(f"({self.FRAME}).includes({json.dumps(part)})", 60)
        buttons = f"[...{self.PAGE}.document.querySelectorAll('button')]"
        await page.js(f"{buttons}.find(e => e.innerText === 'Approve').click()")
        await page.until(f"{self.PAGE}.document.querySelector('[role=dialog]')")
        await page.js(f"[...{self.PAGE}.document.querySelectorAll('[role=dialog] button')].find(e => e.innerText === 'Approve').click()")
        await page.until(f"({self.FRAME}).includes('2 folders, 1 entry') && !{self.PAGE}.document.querySelector('#held')", 60)
        newest = json.loads(ctl("--json", "map", "history").stdout)["maps"][-1]
        self.assertEqual(("approval", "carol"), (newest["how"], newest["who"]))

    async def test_of_another_says_so_and_shows_nothing_half(self):
        page = await self.enter("dave", "")
        await page.until(f"({self.FRAME}).includes('This page needs administrative access.')", 60)
        self.assertNotIn("Event buffer", await page.js(self.FRAME))
        for place in ("permissions?path=Shared/Design", "maps", "history"):
            await self.go(place)
            await page.until(f"{self.PAGE}.document.querySelector('.error-note[data-code=access-denied]')", 60)
            for selector in (".tree", "#held", "table", ".activity"):
                self.assertFalse(await page.js(f"!!{self.PAGE}.document.querySelector({json.dumps(selector)})"), selector)


if __name__ == "__main__":
    program = unittest.main(exit=False, verbosity=2)
    if PageTest.browser:
        PageTest.browser.stop()
    sys.exit(not program.result.wasSuccessful())
