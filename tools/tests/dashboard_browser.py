#!/usr/bin/env python3
"""The dashboard in a real browser: Debian's chromium, headless, driven by selenium, against a
real mosquitto (scripts/broker.sh), nkstation and simulated panels started here.

Checks what an operator sees: the fleet page's counts, a panel going offline without a reload,
a configuration uploaded through the page reaching the panels (in sync), a bad configuration
refused by member with nothing changed (also through the API), the panel page's events,
timeline and charts, phone width and keyboard use. Screenshots of each page are saved.
"""
import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request

import harness
from harness import FAILURES, check, kill_children, start

ARGS = None
FLEET = "browser"
FIRST = 2000
STEADY = 5          # addresses 2000..2004, one process
LEAVING = 2010      # one panel in a process of its own, stopped during the test
WAIT = 180          # seconds for any page state on a loaded machine


def broker(command):
    out = subprocess.run(["bash", ARGS.broker_script, command, ARGS.work + "/broker"],
                         capture_output=True, text=True, timeout=60)
    if out.returncode != 0:
        raise RuntimeError("broker script failed: " + out.stderr)
    return out.stdout.strip()


def api(path, body=None, method=None):
    data = json.dumps(body).encode() if body is not None else None
    request = urllib.request.Request(ARGS.http + path, data=data, method=method or ("POST" if data else "GET"),
                                     headers={"Content-Type": "application/json"})
    try:
        with urllib.request.urlopen(request, timeout=30) as response:
            return response.status, json.loads(response.read())
    except urllib.error.HTTPError as e:
        return e.code, json.loads(e.read() or b"null")


def panels(url, count, first):
    proc = start([ARGS.nkdevice, "--mqtt", url, "--fleet", FLEET, "--simulate", str(count), "--address", str(first)])
    if not harness.read_line(proc, 60):
        raise RuntimeError("nkdevice --simulate did not start")
    return proc


def browser():
    # Imported here so that a missing selenium is reported as this test's failure.
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = ARGS.chromium
    profile = os.path.join(ARGS.build_dir, "chromium-profile")
    shutil.rmtree(profile, ignore_errors=True)
    for flag in ["--headless=new", "--user-data-dir=" + profile, "--window-size=1280,2400",
                 "--disable-dev-shm-usage", "--disable-gpu", "--no-first-run"]:
        options.add_argument(flag)
    if os.geteuid() == 0:
        options.add_argument("--no-sandbox")  # chromium refuses to run as root with its sandbox
    return webdriver.Chrome(service=Service(ARGS.chromedriver), options=options)


class Page:
    def __init__(self, driver):
        from selenium.webdriver.support.ui import WebDriverWait
        self.driver = driver
        self.wait = WebDriverWait(driver, WAIT, poll_frequency=0.3)

    def until(self, what, condition):
        """Waits for condition(driver) to be true; a time-out is a failed check, not an error."""
        from selenium.common.exceptions import TimeoutException
        try:
            self.wait.until(lambda d: self.js_safe(condition, d))
            return check(True, what)
        except TimeoutException:
            return check(False, what + " (timed out)")

    @staticmethod
    def js_safe(condition, driver):
        from selenium.common.exceptions import (StaleElementReferenceException, NoSuchElementException,
                                                UnexpectedTagNameException)
        try:
            return condition(driver)
        except (StaleElementReferenceException, NoSuchElementException, UnexpectedTagNameException):
            return False

    def js(self, script, *args):
        return self.driver.execute_script(script, *args)

    def shot(self, name):
        shown = self.js("return document.querySelector('main').innerText;")
        import re
        leaked = re.findall(r"\b(null|undefined|NaN|\[object Object\])\b", shown)
        check(not leaked, "the %s page shows no leaked placeholder values: %s" % (name, leaked[:3]))
        path = os.path.join(ARGS.screenshots, name + ".png")
        self.driver.save_screenshot(path)
        print("     screenshot " + path)


def page_counts(page):
    """The number on each status tile of the fleet page."""
    return page.js("""
        const out = {};
        for (const tile of document.querySelectorAll('.counts .count'))
            out[tile.dataset.status] = Number(tile.querySelector('.number').textContent);
        return out;""")


def row_status(page, address):
    return page.js("const r = document.querySelector('#devices tr[data-address=\"' + arguments[0] + '\"]');"
                   "return r ? r.querySelector('td.status').textContent.replace(/^[✓✗] /, '') : null;", address)


def check_fleet(page, leaving_proc):
    d = page.driver
    d.get(ARGS.http + "/#/fleet")
    total = STEADY + 1
    page.until("the fleet page lists all %d panels" % total,
               lambda d: len(d.find_elements("css selector", "#devices tbody tr")) == total)
    page.until("the fleet page counts all panels online and in sync, as the station does",
               lambda d: page_counts(page).get("all") == total and page_counts(page).get("in sync") == total)
    _, summary = api("/api/summary")
    counts = page_counts(page)
    check(all(counts.get(s, 0) == summary["status"].get(s, 0) for s in ["in sync", "pending", "pushing", "failed",
                                                                       "offline"]),
          "every status tile matches the API's summary: %s vs %s" % (counts, summary["status"]))
    page.shot("fleet")

    # Filters and search narrow the list.
    from selenium.webdriver.support.ui import Select
    page.until("the group filter offers the fleet's group",
               lambda d: Select(d.find_element("id", "filter-group")).select_by_value("default") is None)
    page.until("filtering by that group keeps every panel",
               lambda d: len(d.find_elements("css selector", "#devices tbody tr")) == total)
    Select(d.find_element("id", "filter-group")).select_by_value("")

    search = d.find_element("id", "filter-search")
    search.send_keys(str(LEAVING))
    page.until("searching an address leaves that panel alone",
               lambda d: [r.get_attribute("data-address") for r in
                          d.find_elements("css selector", "#devices tbody tr")] == [str(LEAVING)])
    search.clear()
    search.send_keys("x-no-such-panel")
    page.until("a search that matches nothing empties the list",
               lambda d: len(d.find_elements("css selector", "#devices tbody tr")) == 0)
    from selenium.webdriver.common.keys import Keys
    search.send_keys(Keys.CONTROL, "a", Keys.DELETE)

    # A panel going away turns offline on the page without a reload.
    page.js("window.notReloaded = true;")
    page.until("the search is cleared", lambda d: len(d.find_elements("css selector", "#devices tbody tr")) == STEADY + 1)
    page.js("document.querySelector('#devices tr[data-address=\"%d\"] a').focus();" % FIRST)
    leaving_proc.send_signal(signal.SIGTERM)
    leaving_proc.wait(60)
    page.until("the stopped panel is shown offline without a reload",
               lambda d: row_status(page, LEAVING) == "offline" and page.js("return window.notReloaded === true;"))
    page.until("the offline tile counts it",
               lambda d: page_counts(page).get("offline") == 1 and page_counts(page).get("in sync") == STEADY)
    check(page.js("return document.activeElement.getAttribute('href');") == "#/panel/%d" % FIRST,
          "the keyboard focus stays on the panel link it was on while the list changed live")
    page.shot("fleet-one-offline")

    # By keyboard: the offline tile is a button that filters the list.
    tile = d.find_element("css selector", ".counts button[data-status='offline']")
    tile.send_keys(Keys.ENTER)
    page.until("pressing Enter on the offline tile filters the list to that panel",
               lambda d: [r.get_attribute("data-address") for r in
                          d.find_elements("css selector", "#devices tbody tr")] == [str(LEAVING)])


def settled(driver):
    """Rows of the push progress in sync with nothing left to differ (the status of a panel whose
    desired state just changed is still its last round's until the station works on it)."""
    return sum(1 for r in driver.find_elements("css selector", "#progress tbody tr")
               if r.find_element("css selector", "td.status").text.endswith("in sync") and
               r.find_elements("css selector", "td")[2].text.strip() == "")


def upload(page, text_path, member="config"):
    from selenium.webdriver.support.ui import Select
    d = page.driver
    Select(d.find_element("id", "member")).select_by_value(member)
    d.find_element("id", "upload-file").send_keys(text_path)
    page.until("the chosen file is read into the page",
               lambda d: d.find_element("id", "upload-text").get_attribute("value").strip().startswith("{"))
    d.find_element("id", "save").click()


def check_desired(page, config):
    d = page.driver
    d.get(ARGS.http + "/#/desired?group=default")
    page.until("the desired-state page shows the group's panels",
               lambda d: len(d.find_elements("css selector", "#progress tbody tr")) == STEADY + 1)

    good = dict(config, slideshowInterval_sec=17)
    good_path = os.path.join(ARGS.work, "good-config.json")
    json.dump(good, open(good_path, "w"))
    status, validated = api("/api/validate", {"config": good})
    check(status == 200 and validated.get("valid") is True, "the station validates the configuration: %s" % validated)
    upload(page, good_path)
    page.until("the page confirms the save", lambda d: "Saved" in d.find_element("id", "upload-result").text)
    page.until("the push progress shows every online panel in sync",
               lambda d: settled(d) == STEADY)
    _, desired = api("/api/groups/default/desired")
    check(desired["config"] == good, "the uploaded configuration is the group's desired one")
    _, panel = api("/api/devices/%d" % FIRST)
    check(panel["reported"]["csCfg"] == validated["csCfg"] == panel["desired"]["csCfg"],
          "the simulated panel reports the uploaded configuration's checksum %s" % validated["csCfg"])
    page.shot("desired-saved")

    # A configuration the library would misread is refused by member, and nothing changes.
    bad = dict(good, updateTime="noon")
    bad_path = os.path.join(ARGS.work, "bad-config.json")
    json.dump(bad, open(bad_path, "w"))
    upload(page, bad_path)
    page.until("the refusal is shown, naming the member",
               lambda d: d.find_element("css selector", "#upload-result .refusal code.member").text == "config" and
               "updateTime" in d.find_element("css selector", "#upload-result .refusal").text)
    check("Saved" not in d.find_element("id", "upload-result").text, "the page does not claim the bad one saved")
    _, after = api("/api/groups/default/desired")
    check(after["config"] == good and after["changed"] == desired["changed"],
          "the API still holds the good configuration, unchanged since its save")
    _, panel = api("/api/devices/%d" % FIRST)
    check(panel["desired"]["csCfg"] == validated["csCfg"] and panel["status"] == "in sync",
          "the panel's desired checksum is unchanged and it stays in sync")
    page.shot("desired-refused")

    # A schedule set running today, uploaded through the page, for the panel's timeline.
    today = time.strftime("%Y-%m-%d", time.gmtime())
    schedules = {"action": "schedules", "type": "request", "tv": 1, "schedules": [
        {"uid": 21, "name": "daytime", "startTime": today + " 06:00:00", "stopTime": today + " 20:00:00",
         "flags": 6 | 1, "frame": 1, "entries": [{"name": "welcome", "uid": 1, "duration": 600, "imageUid": 42},
                                                 {"name": "menu", "uid": 2, "duration": 1200, "imageUid": 43}]}]}
    schedules_path = os.path.join(ARGS.work, "schedules.json")
    json.dump(schedules, open(schedules_path, "w"))
    upload(page, schedules_path, "schedules")
    page.until("the schedule set is saved and the online panels are in sync again",
               lambda d: "Saved" in d.find_element("id", "upload-result").text and
               settled(d) == STEADY and
               api("/api/devices/%d" % FIRST)[1]["reported"]["csSched"] ==
               api("/api/devices/%d" % FIRST)[1]["desired"].get("csSched"))
    check(api("/api/groups/default/desired")[1]["config"] == good, "saving the schedule set kept the configuration")

    # An image the schedule shows, uploaded through the page under uid 42.
    d.find_element("id", "image-file").send_keys(os.path.join(ARGS.examples, "image.png"))
    d.find_element("id", "image-uid").send_keys("42")
    d.find_element("id", "image-add").click()
    page.until("the uploaded image is in the group's set, its thumbnail drawn, and the panels hold it",
               lambda d: "Saved" in d.find_element("id", "image-result").text and
               page.js("const i = document.querySelector('#image-set li[data-uid=\"42\"] img');"
                       "return !!i && i.complete && i.naturalWidth > 0;") and settled(d) == STEADY and
               any(i["id"] == 42 for i in api("/api/devices/%d" % FIRST)[1]["reported"]["images"]))
    _, desired = api("/api/groups/default/desired")
    check(desired["config"] == good and desired["schedules"] is not None and
          [i["uid"] for i in desired["images"]] == [42], "the image set holds uid 42 beside the kept configuration")
    not_png = os.path.join(ARGS.work, "not-a-picture.png")
    open(not_png, "w").write("this is text, not a PNG")
    d.find_element("id", "image-file").send_keys(not_png)
    d.find_element("id", "image-uid").clear()
    d.find_element("id", "image-uid").send_keys("43")
    d.find_element("id", "image-add").click()
    page.until("a file that is not what its type says is refused on the page",
               lambda d: d.find_elements("css selector", "#image-result .refusal"))
    check(api("/api/groups/default/desired")[1]["images"] == desired["images"], "the refused image changed no set")

    # Keyboard: every control has a label, tabbing reaches the save button, focus is visible.
    unlabelled = page.js("""
        return [...document.querySelectorAll('main input, main select, main textarea')]
            .filter(c => !(c.id && document.querySelector('label[for="' + c.id + '"]')) && !c.getAttribute('aria-label'))
            .map(c => c.id || c.outerHTML);""")
    check(unlabelled == [], "every form control of the desired-state page has a label: %s" % unlabelled)
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.common.action_chains import ActionChains
    page.js("document.activeElement.blur(); document.querySelector('.skip').focus();")
    visited = []
    for _ in range(40):
        ActionChains(d).send_keys(Keys.TAB).perform()
        info = page.js("const a = document.activeElement; const s = getComputedStyle(a);"
                       "return [a.id || a.tagName, s.outlineStyle, s.outlineWidth];")
        visited.append(info)
        if info[0] == "save":
            break
    ids = [v[0] for v in visited]
    check("save" in ids and ids.index("target-kind") < ids.index("member") < ids.index("upload-text") < ids.index("save"),
          "tab order runs target, member, text, save: %s" % ids)
    check(all(v[1] != "none" and v[2] != "0px" for v in visited), "every focused control shows a focus outline")


def check_rename(page):
    d = page.driver
    d.get(ARGS.http + "/#/desired?panel=%d" % (FIRST + 1))
    page.until("the desired-state page opens on one panel",
               lambda d: len(d.find_elements("css selector", "#progress tbody tr")) == 1)
    d.find_element("id", "desired-name").send_keys("lobby east")
    d.find_element("id", "rename-button").click()
    page.until("the name saved in the page reaches the panel",
               lambda d: "Saved" in d.find_element("id", "name-result").text and
               api("/api/devices/%d" % (FIRST + 1))[1]["reported"]["name"] == "lobby east" and settled(d) == 1)
    check(api("/api/devices/%d" % FIRST)[1]["reported"]["name"] != "lobby east", "the other panels keep their name")


def check_panel(page):
    d = page.driver
    d.get(ARGS.http + "/#/panel/%d" % FIRST)
    page.until("the panel page shows reported and desired state",
               lambda d: "configuration checksum" in d.find_element("id", "state").text)
    _, panel = api("/api/devices/%d" % FIRST)
    check(panel["reported"]["csCfg"] in d.find_element("id", "state").text, "the reported checksum is shown")
    page.until("the panel's collected events are listed",
               lambda d: len(d.find_elements("css selector", "#events tbody tr.event")) > 0)
    labels = page.js("return [...document.querySelectorAll('#events .badge.category')].map(b => "
                     "[b.textContent, getComputedStyle(b).backgroundColor]);")
    check(all(text.strip() for text, _ in labels), "every event category badge carries a text label")
    _, events = api("/api/events?address=%d&limit=100000" % FIRST)
    check(events and all(e["address"] == FIRST for e in events), "the API gives this panel's events alone")
    colours = {"rgb(255, 102, 0)": 0, "rgb(255, 255, 102)": 1}
    check(all(colours.get(colour, 99) == int(text.split("(")[1].rstrip(")")) for text, colour in labels
              if colour in colours), "the listed events of categories 0 and 1 have their own colours")
    # The simulated panels log few faults, so the badges of every category are drawn here too.
    badges = d.execute_async_script("""
        const done = arguments[arguments.length - 1];
        import('/format.js').then((m) => done([0, 1, 2, 7].map((c) => {
            const b = m.categoryBadge(c);
            document.body.append(b);
            const out = [b.textContent, getComputedStyle(b).backgroundColor, getComputedStyle(b).color];
            b.remove();
            return out;
        })));""")
    check([b[0] for b in badges] == ["error (0)", "notice (1)", "info (2)", "category 7 (7)"] and
          badges[0][1] == "rgb(255, 102, 0)" and badges[1][1] == "rgb(255, 255, 102)" and
          badges[2][1] not in colours and all(b[2] == "rgb(0, 0, 0)" for b in badges),
          "category badges: #FF6600 and #FFFF66 for 0 and 1, black text, a written label on each: %s" % badges)
    # Filter and paging of the events: one category alone, and older pages when there are more.
    from selenium.webdriver.support.ui import Select
    page.until("the category filter offers category 2",
               lambda d: Select(d.find_element("id", "event-category")).select_by_value("2") is None)
    page.until("the category filter leaves only that category's events",
               lambda d: d.find_elements("css selector", "#events tbody tr.event") and
               all(b.text == "info (2)" for b in d.find_elements("css selector", "#events .badge.category")))
    info = d.find_element("id", "event-page").text
    pages = int(info.split(" of ")[1].split(" ")[0])
    if pages > 1:
        first = d.find_element("css selector", "#events tbody tr.event").text
        d.find_element("id", "event-next").click()
        page.until("Older shows the next page of events",
                   lambda d: d.find_element("id", "event-page").text.startswith("page 2 of") and
                   d.find_element("css selector", "#events tbody tr.event").text != first)
    else:
        check(not d.find_element("id", "event-next").is_enabled(), "with one page, Older is disabled")
    page.until("the week's first day shows today's schedule",
               lambda d: len(d.find_elements("css selector", ".timeline .week .track .slot")) > 0 and
               d.find_element("css selector", ".timeline .week .track").size["height"] > 0)
    page.until("statistics charts are drawn with the station's chart library",
               lambda d: page.js("const c = document.getElementById('chart-updates');"
                                 "return !!c && c.width > 0 && !!window.getComputedStyle(c);"))
    page.until("the panel page shows the thumbnail of the image it holds",
               lambda d: page.js("const i = document.querySelector('#thumbnails li[data-uid=\"42\"] img');"
                                 "return !!i && i.complete && i.naturalWidth > 0;") and
               "42: held, wanted" in d.find_element("id", "thumbnails").text)
    page.until("today's timeline shows the schedule's entries",
               lambda d: len(d.find_elements("css selector", ".timeline .track .slot.image-0")) > 0 and
               "daytime" in d.find_element("css selector", ".timeline").text)
    page.until("the panel's display configurations and logical displays are listed, the current one marked",
               lambda d: len(d.find_elements("css selector", "#displays tbody tr")) == 3 and
               "single (1), current" in d.find_element("id", "displays").text)
    page.until("the configuration's frames are listed", lambda d: len(d.find_elements("css selector", "#frames tbody tr")) > 0)
    page.shot("panel")


def check_phone(page):
    d = page.driver
    d.set_window_size(390, 844)
    # The window size covers the browser's frame too; the page itself is what must fit.
    width = page.js("return window.innerWidth;")
    d.get(ARGS.http + "/#/fleet")
    page.until("the fleet page loads at phone width",
               lambda d: len(d.find_elements("css selector", "#devices tbody tr")) == STEADY + 1)
    check(page.js("return document.documentElement.scrollWidth <= window.innerWidth + 1;"),
          "nothing runs off a %d px wide page on the fleet page" % width)
    page.shot("phone-fleet")
    d.get(ARGS.http + "/#/panel/%d" % FIRST)
    page.until("the panel page loads at phone width",
               lambda d: "configuration checksum" in d.find_element("id", "state").text)
    check(page.js("return document.documentElement.scrollWidth <= window.innerWidth + 1;"),
          "nothing runs off the panel page at phone width")
    page.shot("phone-panel")
    d.get(ARGS.http + "/#/desired?group=default")
    page.until("the desired-state page loads at phone width",
               lambda d: len(d.find_elements("css selector", "#progress tbody tr")) > 0)
    check(page.js("return document.documentElement.scrollWidth <= window.innerWidth + 1;"),
          "nothing runs off the desired-state page at phone width")
    page.shot("phone-desired")


def main():
    config = json.load(open(os.path.join(ARGS.examples, "config.json")))
    url = broker("start")
    station = start([ARGS.nkstation, "--mqtt", url, "--fleet", FLEET, "--db", ARGS.work + "/station.db",
                     "--http", "127.0.0.1:0", "--poll-interval", "5", "--collect-interval", "3", "--timeout", "5"])
    line = harness.read_line(station, 60)
    if not line:
        raise RuntimeError("nkstation did not start: " + (station.stderr.read() if station.poll() is not None else ""))
    started = json.loads(line)
    ARGS.http = "http://" + started["http"]
    check(started.get("dashboard") == ARGS.http + "/", "the station names its dashboard's address")
    status, chart = 0, b""
    with urllib.request.urlopen(ARGS.http + "/lib/chart.js/chart.esm.js", timeout=30) as response:
        status, chart = response.status, response.read(200)
    check(status == 200 and b"Chart.js" in chart, "the station serves Debian's Chart.js")
    with urllib.request.urlopen(ARGS.http + "/", timeout=30) as response:
        check(b"<main" in response.read(), "the station serves the dashboard at /")
    status, body = api("/api/validate", {"config": dict(config, opMode="fast")})
    check(status == 400 and body.get("member") == "config" and "opMode" in body.get("error", ""),
          "validation refuses a misread member by name: %s" % body)
    status, body = api("/api/validate", {"schedules": {"action": "schedules"}, "colour": 1})
    check(status == 400 and body.get("member") == "colour", "validation refuses an unknown member by name")
    check(api("/api/groups/default/desired")[1]["config"] is None, "validation stores nothing")
    status, body = api("/api/statistics?address=abc")
    check(status == 400 and body.get("member") == "address", "a malformed address filter is refused naming it")

    panels(url, STEADY, FIRST)
    leaving = panels(url, 1, LEAVING)
    driver = browser()
    try:
        page = Page(driver)
        check_fleet(page, leaving)
        check_desired(page, config)
        check_rename(page)
        check_panel(page)
        check_phone(page)
        # The refused uploads' 400s are the answers the test asked for; anything else is a fault.
        logs = [entry for entry in driver.get_log("browser") if entry.get("level") == "SEVERE" and
                not (("/api/validate " in entry.get("message", "") or "name=not-a-picture.png " in
                      entry.get("message", "")) and "status of 400" in entry.get("message", ""))]
        check(not logs, "the browser logged no errors: %s" % logs[:3])
    finally:
        driver.quit()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--nkstation", required=True)
    parser.add_argument("--nkdevice", required=True)
    parser.add_argument("--broker-script", required=True)
    parser.add_argument("--examples", required=True)
    parser.add_argument("--build-dir", required=True, help="where the browser profile and screenshots go")
    parser.add_argument("--chromium", default="/usr/bin/chromium")
    parser.add_argument("--chromedriver", default="/usr/bin/chromedriver")
    ARGS = parser.parse_args()
    ARGS.screenshots = os.path.join(ARGS.build_dir, "screenshots")
    os.makedirs(ARGS.screenshots, exist_ok=True)
    ARGS.work = tempfile.mkdtemp(prefix="nk-dashboard-")
    try:
        for program in (ARGS.chromium, ARGS.chromedriver):
            if not os.access(program, os.X_OK):
                raise RuntimeError(program + " is missing: scripts/install-deps.sh installs it")
        main()
    except Exception as e:  # a missing browser or a failure to start fails the test, never skips it
        check(False, "unexpected error: %r" % (e,))
    finally:
        kill_children()
        try:
            broker("stop")
        except Exception:
            pass
        shutil.rmtree(ARGS.work, ignore_errors=True)
    print("%d failure(s)" % len(FAILURES))
    sys.exit(1 if FAILURES else 0)
