#!/usr/bin/python3
"""ocpctl scope under load: 4 actuators x 4 items streaming at 1 kHz on the
simulated bus. Measures, side by side in one process run: the process's CPU
with no page, then with one headless chromium page open; the bytes a second
sent to the page; and the page's own frame rate (requestAnimationFrame).

  /usr/bin/python3 bench/scope/scope_bench.py build/tools/ocpctl [seconds]

The simulated devices run inside ocpctl, so the CPU without a page is the
bus, the emulation and the decimation; the difference with a page is what
serving the page costs."""

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.request

TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def cpu_share(pid, seconds):
    start_cpu, start = cpu_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return (cpu_seconds(pid) - start_cpu) / (time.monotonic() - start)


def main():
    ocpctl = sys.argv[1]
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 10.0
    scope = subprocess.Popen(
        [ocpctl, "--bus", "sim:0x21,0x22,0x23,0x24", "scope", "0x21", "0x22", "0x23", "0x24", "--port", "0",
         "--rate", "1000", "--items", "POS_FB_4C,SPD_FB_45,T_FB_56,REF_4B", "--grace", "600"],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    url = scope.stdout.readline().strip()
    port, token = re.fullmatch(r"http://127\.0\.0\.1:(\d+)/#token=(\w+)", url).groups()
    status_url = "http://127.0.0.1:%s/api/status?token=%s" % (port, token)
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    profile = tempfile.mkdtemp(prefix="scope-bench-")
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                     "--disable-dev-shm-usage", "--window-size=1600,1100", "--user-data-dir=" + profile):
        options.add_argument(argument)
    driver = None
    try:
        time.sleep(1.0)
        idle = cpu_share(scope.pid, seconds)
        driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        driver.get(url)
        def post(path, body):
            request = urllib.request.Request("http://127.0.0.1:%s%s" % (port, path), data=json.dumps(body).encode(),
                                             method="POST",
                                             headers={"Content-Type": "application/json", "X-Scope-Token": token})
            urllib.request.urlopen(request, timeout=10).read()

        # Every trace moves, so that no value repeats from bin to bin.
        for number, address in enumerate(("0x21", "0x22", "0x23", "0x24")):
            post("/api/mode", {"address": address, "mode": "SPEED"})
            post("/api/start", {"address": address})
            post("/api/setpoint", {"address": address, "value": 1.5 + number})
        time.sleep(2.0)
        frames_before = driver.execute_script("return window.scopeStats.frames;")
        start = time.monotonic()
        with_page = cpu_share(scope.pid, seconds)
        fps = (driver.execute_script("return window.scopeStats.frames;") - frames_before) / (time.monotonic() - start)
        with urllib.request.urlopen(status_url, timeout=10) as response:
            server = json.loads(response.read())["server"]
        print("4 actuators x 4 items at 1 kHz, %.0f s each:" % seconds)
        print("  samples in                 %8.0f /s" % server["samples_per_s"])
        print("  ocpctl CPU, no page        %8.1f %% of one core" % (idle * 100))
        print("  ocpctl CPU, one page       %8.1f %% of one core (x%.2f)" % (with_page * 100, with_page / idle))
        print("  sent to the page           %8.1f KiB/s" % (server["bytes_per_s"] / 1024))
        print("  page frame rate            %8.1f frames/s (headless chromium, software drawing)" % fps)
    finally:
        if driver is not None:
            driver.quit()
        shutil.rmtree(profile, ignore_errors=True)
        scope.terminate()
        scope.wait(timeout=15)


if __name__ == "__main__":
    main()
