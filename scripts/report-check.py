#!/usr/bin/python3
"""Opens the report of a demo installation in headless Chromium, as a person
would open it, and fails when the browser reports an error or a chart did not
draw. The screenshot of the whole page is kept for a person to look at.

Run by ctest; by hand:
  /usr/bin/python3 scripts/report-check.py --tarnwell build/release/apps/tarnwell/tarnwell \\
      --screenshot build/report-screenshot.png

Debian's selenium is installed for Debian's own interpreter, /usr/bin/python3.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

# The charts a report holds at the least: the day, week, month and year of
# screen time and pickups, the nights, and focus with one chart per tag.
MINIMUM_CHARTS = 12


def tarnwell(binary, home, arguments):
    command = [binary, "--container", os.path.join(home, "phone"), "--tz", "Europe/Berlin",
               "--locale", "en_US", "--now", "2026-11-23T05:00:00"] + arguments
    done = subprocess.run(command, env=dict(os.environ, XDG_DATA_HOME=home), capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit("report-check: %s failed: %s" % (" ".join(arguments), done.stderr.strip()))
    return done.stdout


def make_report(binary, home):
    tarnwell(binary, home, ["demo", "--days", "400"])
    # Another application's nights, chosen as the sleep source, so that the
    # nights show both readings.
    for day in ("19", "20", "21", "22"):
        tarnwell(binary, home, ["health", "add-sleep", "2026-11-%02dT23:10:00" % (int(day) - 1),
                                "2026-11-%sT06:50:00" % day, "--source-bundle", "com.tantsissa.AutoSleep",
                                "--source-name", "AutoSleep"])
    tarnwell(binary, home, ["settings", "set", "defaultSleepDataSource", "com.tantsissa.AutoSleep"])
    report = os.path.join(home, "report.html")
    tarnwell(binary, home, ["report", "--from", "2026-11-16", "--to", "2026-11-22", "--out", report])
    return report


def check_self_contained(report):
    with open(report, encoding="utf-8") as page:
        html = page.read()
    problems = []
    if re.search(r"<script", html, re.IGNORECASE):
        problems.append("the page has a script")
    for reference in re.findall(r"""(?:src|href)\s*=\s*["']([^"']*)""", html) + re.findall(r"url\(([^)]*)\)", html):
        if not reference.startswith(("data:", "#")):
            problems.append("the page reaches outside itself: " + reference[:80])
    return problems


def open_in_browser(report, screenshot):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     "--window-size=1000,900", "--hide-scrollbars"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    try:
        driver.get("file://" + os.path.abspath(report))
        charts = driver.execute_script("""
            return Array.from(document.querySelectorAll('figure.chart')).map(figure => {
              const image = figure.querySelector('img');
              return {id: figure.id,
                      drawn: !!image && image.complete && image.naturalWidth > 0 && image.naturalHeight > 0,
                      shown: !!image && image.getBoundingClientRect().width > 0};
            });""")
        errors = [entry["message"] for entry in driver.get_log("browser") if entry["level"] == "SEVERE"]
        height = driver.execute_script("return document.documentElement.scrollHeight")
        driver.set_window_size(1000, min(height, 30000))
        driver.save_screenshot(screenshot)
    finally:
        driver.quit()
    problems = ["console: " + error for error in errors]
    if len(charts) < MINIMUM_CHARTS:
        problems.append("%d charts, fewer than %d" % (len(charts), MINIMUM_CHARTS))
    problems += ["chart %s is missing" % (chart["id"] or "without an id") for chart in charts
                 if not (chart["drawn"] and chart["shown"])]
    return len(charts), problems


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tarnwell", required=True)
    parser.add_argument("--screenshot", required=True)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="tarnwell-report-") as home:
        report = make_report(arguments.tarnwell, home)
        problems = check_self_contained(report)
        count, seen = open_in_browser(report, arguments.screenshot)
        problems += seen
    for problem in problems:
        print("report-check: " + problem, file=sys.stderr)
    print("report-check: %d charts drawn, screenshot %s" % (count, arguments.screenshot))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
