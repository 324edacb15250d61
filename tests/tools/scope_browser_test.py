"""ocpctl scope in a real browser: Debian's chromium, driven headless through
chromedriver with python3-selenium, against `ocpctl scope` on the simulated
bus. Where the browser cannot start the tests report themselves skipped with
the reason, except with CI=true, where that is a failure."""

import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

import pytest

OCPCTL = os.environ.get("OCPCTL", "ocpctl")
ARTEFACTS = os.environ.get("SCOPE_ARTEFACTS", tempfile.gettempdir())
CHROMIUM = os.environ.get("SCOPE_CHROMIUM", "/usr/bin/chromium")
CHROMEDRIVER = "/usr/bin/chromedriver"
IN_CI = os.environ.get("CI", "").lower() == "true"
GRACE_S = 3.0  # generous: a loaded machine may delay the page's heartbeats


def unavailable(reason):
    if IN_CI:
        pytest.fail("browser test cannot run in CI: " + reason)
    pytest.skip(reason)


def wait_for(condition, what, timeout=20.0):
    """Polls until condition() is truthy; a generous bound, never a sleep-and-hope."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.05)


class Scope:
    """One `ocpctl scope` process on the simulated bus."""

    def __init__(self, *arguments, grace_s=GRACE_S):
        self.stderr = tempfile.TemporaryFile(mode="w+")
        self.process = subprocess.Popen(
            [OCPCTL, "--bus", "sim:0x21,0x22", "scope", "0x21", "0x22", "--port", "0", "--grace", str(grace_s)]
            + list(arguments),
            stdout=subprocess.PIPE, stderr=self.stderr, text=True)
        line = self.process.stdout.readline().strip()
        match = re.fullmatch(r"http://127\.0\.0\.1:(\d+)/#token=([0-9a-f]{32})", line)
        assert match, "unexpected first line: " + repr(line) + self.errors()
        self.url = line
        self.port = int(match.group(1))
        self.token = match.group(2)
        self.base = "http://127.0.0.1:%d" % self.port

    def errors(self):
        self.stderr.seek(0)
        return self.stderr.read()

    def request(self, method, path, body=None, headers=None, token=True):
        all_headers = {"Content-Type": "application/json"}
        if token:
            all_headers["X-Scope-Token"] = self.token
        all_headers.update(headers or {})
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data=data, method=method, headers=all_headers)
        try:
            with urllib.request.urlopen(request, timeout=10) as response:
                return response.status, response.read().decode()
        except urllib.error.HTTPError as error:
            return error.code, error.read().decode()

    def status(self):
        code, text = self.request("GET", "/api/status")
        assert code == 200, text
        return {entry["address"]: entry for entry in json.loads(text)["devices"]}

    def end(self, signal_number=signal.SIGINT):
        if self.process.poll() is None:
            self.process.send_signal(signal_number)
            try:
                self.process.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        return self.process.returncode


def start_browser():
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError as error:
        unavailable("python3-selenium is not installed (%s)" % error)
    if not (os.access(CHROMIUM, os.X_OK) and os.access(CHROMEDRIVER, os.X_OK)):
        unavailable("chromium or chromium-driver is not installed")
    profile = tempfile.mkdtemp(prefix="scope-chromium-")
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for argument in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                     "--disable-dev-shm-usage", "--window-size=1600,1250", "--user-data-dir=" + profile):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    try:
        driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
    except Exception as error:  # any failure to start is a reason to skip
        shutil.rmtree(profile, ignore_errors=True)
        unavailable("the browser does not start: " + str(error).splitlines()[0])
    driver.profile_dir = profile
    return driver


def quit_browser(driver):
    try:
        driver.quit()
    finally:
        shutil.rmtree(driver.profile_dir, ignore_errors=True)


@pytest.fixture(scope="module")
def scope():
    instance = Scope("--rate", "1000", "--items", "POS_FB_4C,SPD_FB_45,T_FB_56,REF_4B")
    yield instance
    instance.end()


@pytest.fixture(scope="module")
def browser(scope):
    driver = start_browser()
    driver.get(scope.url)
    yield driver
    quit_browser(driver)


def stats(driver):
    return driver.execute_script("return window.scopeStats;")


def card(driver, address):
    from selenium.webdriver.common.by import By
    return driver.find_element(By.CSS_SELECTOR, '.card[data-address="%s"]' % address)


def test_page_loads_without_console_errors(browser):
    wait_for(lambda: stats(browser)["statusCount"] > 0, "the first status")
    problems = [entry for entry in browser.get_log("browser") if entry["level"] in ("SEVERE", "ERROR")]
    assert problems == []
    assert browser.title == "ocpctl scope · 0x21 0x22"


def test_plots_update(browser):
    first = wait_for(lambda: stats(browser)["bins"] > 0 and stats(browser), "the first bins")
    later = wait_for(lambda: stats(browser)["bins"] > first["bins"] + 200 and stats(browser), "more bins")
    assert later["frames"] > first["frames"]
    # Three plots, each drawing points of both devices.
    assert sorted(later["points"]) == ["REF_4B", "position", "speed", "torque"]
    assert all(count > 0 for count in later["points"].values())


def test_start_and_slider_move_the_emulated_actuator(browser, scope):
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select

    device = card(browser, "0x21")
    Select(device.find_element(By.CSS_SELECTOR, ".mode")).select_by_visible_text("POSITION")
    wait_for(lambda: scope.status()[0x21]["mode"] == "POSITION", "position mode")
    device.find_element(By.CSS_SELECTOR, ".start").click()
    wait_for(lambda: scope.status()[0x21]["device_running"], "the emulated device to run")
    slider = device.find_element(By.CSS_SELECTOR, ".slider")
    slider.send_keys(Keys.END)  # the top of the position range, 3.2 rad
    wait_for(lambda: scope.status()[0x21]["setpoint"] == pytest.approx(3.2), "the setpoint to arrive")
    # The emulated actuator follows, as its streamed position shows.
    wait_for(lambda: (stats(browser)["status"]["devices"][0]["latest"][0] or 0) > 1.0, "0x21 to move", 30)
    assert device.find_element(By.CSS_SELECTOR, ".badge").text == "RUNNING"
    assert scope.status()[0x22]["device_running"] is False


def test_stop_all_key_stops_every_emulated_device(browser, scope, tmp_path):
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys

    assert scope.request("POST", "/api/traffic/start", {})[0] == 200
    for address in ("0x21", "0x22"):
        card(browser, address).find_element(By.CSS_SELECTOR, ".start").click()
    wait_for(lambda: all(entry["device_running"] for entry in scope.status().values()), "both devices to run")
    browser.save_screenshot(os.path.join(ARTEFACTS, "scope-running.png"))
    browser.find_element(By.TAG_NAME, "body").send_keys(Keys.SPACE)
    wait_for(lambda: not any(entry["device_running"] for entry in scope.status().values()), "both to stop")
    assert scope.request("POST", "/api/traffic/stop", {})[0] == 200
    # The STOPs are in the recorded traffic, as `ocpctl dump` decodes it.
    code, log = scope.request("GET", "/api/traffic.log")
    assert code == 200
    path = tmp_path / "traffic.log"
    path.write_text(log)
    decoded = subprocess.run([OCPCTL, "dump", "--log", str(path)], capture_output=True, text=True, check=True).stdout
    stops = [line for line in decoded.splitlines() if re.search(r" to-device STOP\b", line)]
    assert {line.split()[2] for line in stops} == {"0x21", "0x22"}, decoded[-2000:]


def test_parameter_edit_is_read_back(browser):
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys

    row = wait_for(lambda: browser.find_elements(By.CSS_SELECTOR, 'tr[data-name="LIMIT_TORQUE"]'), "the table")[0]
    field = row.find_element(By.TAG_NAME, "input")
    field.clear()
    field.send_keys("abc")
    browser.find_element(By.ID, "params-write").click()
    message = browser.find_element(By.ID, "params-message")
    wait_for(lambda: "invalid LIMIT_TORQUE value 'abc' (expected a number)" in message.text, "the refusal")
    field.clear()
    field.send_keys("2.5", Keys.ENTER)
    wait_for(lambda: message.text.startswith("written to 0x21 and read back: LIMIT_TORQUE 2.5"), "the write")
    browser.find_element(By.ID, "params-read").click()
    wait_for(lambda: message.text == "read from 0x21", "the read")
    row = browser.find_element(By.CSS_SELECTOR, 'tr[data-name="LIMIT_TORQUE"]')
    assert row.find_element(By.TAG_NAME, "input").get_attribute("value") == "2.5"


def test_recordings_download_from_the_page(browser, scope, tmp_path):
    from selenium.webdriver.common.by import By

    downloads = tmp_path / "downloads"
    downloads.mkdir()
    browser.execute_cdp_cmd("Page.setDownloadBehavior", {"behavior": "allow", "downloadPath": str(downloads)})
    # What the plots show, as CSV: each trace's low and high per bin.
    browser.find_element(By.ID, "csv").click()
    csv = wait_for(lambda: (downloads / "scope.csv").exists() and (downloads / "scope.csv").read_text(), "scope.csv")
    lines = csv.splitlines()
    assert lines[0].startswith("time_s,0x21 POS_FB_4C min,0x21 POS_FB_4C max,0x21 SPD_FB_45 min,")
    assert lines[0].endswith(",0x22 SETPOINT min,0x22 SETPOINT max")
    assert len(lines) > 100
    times = [float(line.split(",")[0]) for line in lines[1:]]
    assert times == sorted(times)
    # The traffic, recorded from the page and downloaded as a candump -L log.
    traffic = browser.find_element(By.ID, "traffic")
    traffic.click()
    wait_for(lambda: traffic.text.startswith("Stop recording") and int(re.search(r"\d+", traffic.text).group()) > 0,
             "frames to be recorded")
    traffic.click()
    link = browser.find_element(By.ID, "traffic-log")
    wait_for(lambda: link.is_displayed(), "the download link")
    link.click()
    log = downloads / "scope-traffic.log"
    wait_for(lambda: log.exists() and log.read_text().endswith("\n"), "scope-traffic.log")
    decoded = subprocess.run([OCPCTL, "dump", "--log", str(log)], capture_output=True, text=True, check=True)
    assert re.search(r"^\d+\.\d{6} sim 0x2[12] to-host ", decoded.stdout, re.MULTILINE), decoded.stdout[:1000]
    assert decoded.stderr == ""


def group_row(driver, address):
    """The statistics panel's row of one actuator, as column -> text."""
    return driver.execute_script(
        "const tr = document.querySelector('#group-table tr[data-address=\"' + arguments[0] + '\"]');"
        "if (!tr) return null;"
        "const row = {};"
        "for (const td of tr.querySelectorAll('td[data-key]')) row[td.dataset.key] = td.textContent;"
        "return row;", address)


def test_group_statistics_appear_on_the_page_and_refresh(browser, scope):
    first = wait_for(lambda: group_row(browser, "0x22"), "the statistics panel")
    assert sorted(first) == sorted(["age_p50_ms", "age_p99_ms", "age_max_ms", "fresh", "stale", "missing", "faults",
                                    "restarts", "setpoints", "superseded", "refused"])
    # The snapshot counts grow while the page is open: the panel is live.
    later = wait_for(lambda: int(group_row(browser, "0x22")["fresh"]) > int(first["fresh"] or 0) + 50
                     and group_row(browser, "0x22"), "the fresh count to grow")
    assert float(later["age_max_ms"]) > 0
    assert later["restarts"] == "0"
    # The panel shows what the server reports.
    code, text = scope.request("GET", "/api/status")
    rows = {row["hex"]: row for row in json.loads(text)["group"]}
    assert rows["0x22"]["restarts"] == 0 and rows["0x22"]["fresh"] >= int(later["fresh"])
    # The bus counters are in the footer.
    footer = browser.find_element("id", "stats").text
    assert re.search(r" · frames out \d+ · replies in \d+ · superseded on the bus \d+ · lost \d+", footer), footer


def test_a_power_cycled_device_is_set_up_again_and_shows_stopped(browser, scope):
    from selenium.webdriver.common.by import By

    browser.execute_script("window.scrollTo(0, 0);")  # the bar at the top would take the clicks
    device = card(browser, "0x22")
    device.find_element(By.CSS_SELECTOR, ".start").click()
    wait_for(lambda: scope.status()[0x22]["device_running"], "0x22 to run")
    wait_for(lambda: device.find_element(By.CSS_SELECTOR, ".badge").text == "RUNNING", "the RUNNING badge")
    device.find_element(By.CSS_SELECTOR, ".cycle").click()
    # The group notices the silence, pings, sets the device up again and
    # leaves it stopped; the page says so.
    wait_for(lambda: group_row(browser, "0x22")["restarts"] == "1", "the restart to be counted", 30)
    wait_for(lambda: device.find_element(By.CSS_SELECTOR, ".badge").text == "STOPPED", "the STOPPED badge")
    status = scope.status()[0x22]
    assert (status["running"], status["device_running"]) == (False, False)
    # Its stream is back without anyone asking.
    wait_for(lambda: scope.status()[0x22]["feedback"] == "fresh", "fresh feedback again")
    assert "set up again" not in scope.errors()  # nothing for the terminal; the page shows it
    # Started again from the page, it runs.
    device.find_element(By.CSS_SELECTOR, ".start").click()
    wait_for(lambda: scope.status()[0x22]["device_running"], "0x22 to run again")
    assert scope.request("POST", "/api/stop", {"address": "0x22"})[0] == 200
    wait_for(lambda: scope.status()[0x22]["device_running"] is False, "0x22 to stop")


def test_screenshot(browser, scope):
    from selenium.webdriver.common.by import By

    browser.execute_script("window.scrollTo(0, 0);")
    for address in ("0x21", "0x22"):
        card(browser, address).find_element(By.CSS_SELECTOR, ".start").click()
    scope.request("POST", "/api/setpoint", {"address": "0x21", "value": -1.0})
    scope.request("POST", "/api/mode", {"address": "0x22", "mode": "SPEED"})
    scope.request("POST", "/api/setpoint", {"address": "0x22", "value": 4.0})
    wait_for(lambda: stats(browser)["fps"] > 0, "a frame rate")
    time.sleep(3)  # only for a picture with some history in it; nothing is asserted on time
    path = os.path.join(ARTEFACTS, "scope.png")
    browser.save_screenshot(path)
    assert os.path.getsize(path) > 10000
    scope.request("POST", "/api/stop_all", {})


def test_requests_without_token_or_from_another_origin_are_refused(scope):
    code, text = scope.request("POST", "/api/start", {"address": "0x21"}, token=False)
    assert (code, json.loads(text)["error"]) == (403, "missing or wrong access token")
    code, text = scope.request("POST", "/api/start", {"address": "0x21"}, headers={"X-Scope-Token": "0" * 32})
    assert code == 403
    code, text = scope.request("POST", "/api/start", {"address": "0x21"}, headers={"Origin": "http://evil.example"})
    assert (code, json.loads(text)["error"]) == (403, "cross-origin request from http://evil.example refused")
    code, text = scope.request("POST", "/api/start", {"address": "0x21"}, headers={"Host": "evil.example:80"})
    assert (code, json.loads(text)["error"]) == (421, "unknown host 'evil.example:80'")
    code, text = scope.request("POST", "/api/start", {"address": "0x21"}, headers={"Content-Type": "text/plain"})
    assert code == 415
    code, text = scope.request("GET", "/api/config", token=False)
    assert code == 403
    assert scope.status()[0x21]["device_running"] is False


def test_cross_origin_page_cannot_start_an_actuator(browser, scope, tmp_path):
    # Another page in the same browser, served from another port of this
    # machine, tries with the right token; the browser names its origin and
    # the server refuses.
    import functools
    import http.server
    import threading

    (tmp_path / "other.html").write_text("<!doctype html><title>other</title>")
    handler = functools.partial(http.server.SimpleHTTPRequestHandler, directory=str(tmp_path))
    handler.log_message = lambda *arguments: None
    other = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    thread = threading.Thread(target=other.serve_forever, daemon=True)
    thread.start()
    try:
        origin = "http://127.0.0.1:%d" % other.server_address[1]
        browser.get(origin + "/other.html")
        result = browser.execute_async_script(
            "const done = arguments[arguments.length - 1];"
            "fetch(arguments[0] + '/api/start', {method: 'POST', headers: {'Content-Type': 'application/json',"
            "  'X-Scope-Token': arguments[1]}, body: JSON.stringify({address: '0x21'})})"
            ".then(r => done('status ' + r.status), e => done('failed ' + e.message));",
            scope.base, scope.token)
    finally:
        other.shutdown()
        thread.join()
    assert result.startswith("failed")
    wait_for(lambda: "scope refused OPTIONS /api/start: cross-origin request from %s refused" % origin
             in scope.errors(), "the refusal")
    assert scope.status()[0x21]["device_running"] is False
    browser.get(scope.url)


def test_closing_the_page_stops_a_running_actuator_after_the_grace_time():
    scope = Scope()
    try:
        driver = start_browser()
        try:
            driver.get(scope.url)
            from selenium.webdriver.common.by import By
            wait_for(lambda: stats(driver)["statusCount"] > 0, "the page")
            card(driver, "0x21").find_element(By.CSS_SELECTOR, ".start").click()
            wait_for(lambda: scope.status()[0x21]["device_running"], "0x21 to run")
        finally:
            quit_browser(driver)
        # Order of events: the page is gone, the scope says why it stops
        # 0x21, and the emulated device stops.
        wait_for(lambda: "no page for 3.0 s: stopped 0x21" in scope.errors(), "the grace stop", 30)
        wait_for(lambda: scope.status()[0x21]["device_running"] is False, "0x21 to stop")
        assert scope.status()[0x21]["running"] is False
    finally:
        assert scope.end() == 130
    assert scope.errors().endswith("ocpctl: scope ended; stopped 0x21 (the emulated device is not running)\n")


def test_sigterm_stops_what_the_page_started_and_leaves_the_rest():
    scope = Scope(grace_s=600)
    try:
        assert scope.request("POST", "/api/start", {"address": "0x22"})[0] == 200
        wait_for(lambda: scope.status()[0x22]["device_running"], "0x22 to run")
        assert scope.status()[0x21]["device_running"] is False
    finally:
        assert scope.end(signal.SIGTERM) == 143
    assert scope.errors().endswith("ocpctl: scope ended; stopped 0x22 (the emulated device is not running)\n")


def test_bad_arguments_are_refused_before_the_bus_opens():
    for arguments, message in (
            (["0x21", "--port", "70000"], "ocpctl: --port 70000 is outside 0..65535\n"),
            (["0x21", "0x21"], "ocpctl: 0x21 is given twice\n"),
            (["0x21", "--grace", "0"], "ocpctl: --grace 0 is not a positive number of seconds\n"),
            (["0x21", "--items", "NOPE"], None)):
        result = subprocess.run([OCPCTL, "scope"] + arguments, capture_output=True, text=True, timeout=30)
        assert result.returncode == 2, result.stderr
        assert result.stdout == ""
        if message:
            assert result.stderr == message


def test_malformed_requests_get_a_clear_refusal_and_change_nothing(scope):
    def refusal(path, raw):
        request = urllib.request.Request(scope.base + path, data=raw.encode(), method="POST", headers={
            "Content-Type": "application/json", "X-Scope-Token": scope.token})
        try:
            urllib.request.urlopen(request, timeout=10)
        except urllib.error.HTTPError as error:
            body = error.read().decode()
            return error.code, json.loads(body)["error"] if body else ""
        raise AssertionError(path + " " + raw[:100] + " was accepted")

    def parameters():
        code, text = scope.request("GET", "/api/params?address=0x21")
        assert code == 200
        return {row["name"]: row["value"] for row in json.loads(text)["parameters"]}

    before = parameters()
    assert refusal("/api/start", "not json") == (400, "the request body is not JSON")
    assert refusal("/api/start", "[1]") == (400, "the request body is not a JSON object")
    assert refusal("/api/start", "{}") == (400, "no address given")
    assert refusal("/api/start", '{"address": "0x5"}') == (400, "address 0x5 is outside 0x10..0x3FFE")
    assert refusal("/api/start", '{"address": 2.5}') == (
        400, 'address is neither a number nor a text such as "0x21"')
    assert refusal("/api/start", '{"address": "0x30"}') == (400, "0x30 is not on this scope")
    assert refusal("/api/setpoint", '{"address": "0x21", "value": "nan"}') == (
        400, "invalid setpoint 'nan' (expected a finite number)")
    assert refusal("/api/setpoint", '{"address": "0x21", "value": 1e400}')[0] == 400
    assert refusal("/api/mode", '{"address": "0x21", "mode": "fly"}') == (
        400, "unknown mode 'fly' (expected torque, speed, position or impedance)")
    assert refusal("/api/params", '{"address": "0x21", "values": {"ADDRESS": 5}}') == (
        400, "ADDRESS is changed with 'ocpctl address ADDR NEW', which follows the device")
    assert refusal("/api/params", '{"address": "0x21", "values": {"NOPE": 1}}')[1].startswith(
        "unknown parameter 'NOPE' (expected one of K_DAMP, ")
    assert refusal("/api/params", '{"address": "0x21", "values": {"LIMIT_TORQUE": 1, "K_DAMP": "x"}}') == (
        400, "invalid K_DAMP value 'x' (expected a number)")
    assert refusal("/api/start", "{" * 100000)[0] == 413  # larger than any request of the page
    assert parameters() == before  # not even LIMIT_TORQUE, whose value was good
    assert len(before) == 31
    assert all(not entry["running"] for entry in scope.status().values())


def test_a_port_in_use_is_refused_before_the_bus_opens(scope):
    result = subprocess.run([OCPCTL, "scope", "0x21", "--port", str(scope.port)], capture_output=True, text=True,
                            timeout=30)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr == ("ocpctl: cannot listen on 127.0.0.1:%d (in use, or not an address of this machine)\n"
                             % scope.port)
