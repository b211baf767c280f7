#!/usr/bin/python3
"""The documentation site in a browser, as a reader of the package opens it: from its files, without a server.

  site_test.py SITE [PICTURES]     SITE: the folder with index.html; PICTURES takes screenshots, desktop and phone

The interpreter is the system's, for which Debian's packages are. Exit status 77 where the browser or its driver is missing,
with the reason.
"""
import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import urllib.parse

try:
    import urllib3.exceptions
    from selenium import webdriver
    from selenium.common.exceptions import InvalidSessionIdException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.wait import WebDriverWait
except ImportError:
    print("SKIPPED: python3-selenium is missing: scripts/install-packages browser")
    sys.exit(77)

# A browser that dies, as it does on a machine that is busy for minutes, is no fault of the site.
BROWSER_LOST, ATTEMPTS = 3, 3
failures = 0
DESKTOP, PHONE = (1280, 900), (390, 844)


def check(good, what):
    global failures
    if not good:
        failures += 1
        print(f"FAILED {what}")
    return good


def open_browser(size, dark=False):
    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which("chromium")
    for option in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
                   "--no-first-run", "--disable-background-networking"):
        options.add_argument(option)
    if dark:
        options.add_argument("--force-dark-mode")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
    browser.set_page_load_timeout(120)
    browser.set_script_timeout(120)
    # Not the window, which cannot be as narrow as a phone, but what the page is laid out in.
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                            {"width": size[0], "height": size[1], "deviceScaleFactor": 1, "mobile": size is PHONE})
    return browser


def said(browser):
    """What the console holds since it was last asked."""
    return [entry["message"] for entry in browser.get_log("browser") if entry["level"] in ("WARNING", "SEVERE")]


def picture(browser, folder, name):
    if folder:
        browser.save_screenshot(str(folder / f"{name}.png"))


def check_links(browser, site, pages):
    """Every link of every page leads to a page, and to a place that is in it."""
    links, places = {}, {}
    for page in pages:
        browser.get(page.as_uri())
        links[page] = browser.execute_script("return [...document.links].map(link => link.href)")
        places[page] = set(browser.execute_script("return [...document.querySelectorAll('[id]')].map(one => one.id)"))
        broken = browser.execute_script("return [...document.images].filter(one => !one.complete || !one.naturalWidth)"
                                        ".map(one => one.src)")
        check(not broken, f"{page.relative_to(site)}: pictures that do not load: {broken}")
        messages = said(browser)
        check(not messages, f"{page.relative_to(site)}: the console says {messages}")
    checked = 0
    for page, found in links.items():
        for link in found:
            parts = urllib.parse.urlsplit(link)
            if parts.scheme != "file":
                check(parts.scheme in ("https", "http", "mailto"), f"{page.relative_to(site)}: what is {link}?")
                continue
            target = pathlib.Path(urllib.parse.unquote(parts.path))
            place = urllib.parse.unquote(parts.fragment)
            checked += 1
            if not target.is_file():
                check(False, f"{page.relative_to(site)}: nothing at {link}")
            elif place and target in places:
                check(place in places[target], f"{page.relative_to(site)}: no place {place} in {target.relative_to(site)}")
    return checked


def search(browser, site, words):
    browser.get((site / "search.html").as_uri() + "?q=" + urllib.parse.quote(words))
    # Results come one after another; the summary comes when all are there.
    WebDriverWait(browser, 120).until(
        lambda one: any(text.text.strip() for text in one.find_elements(By.CSS_SELECTOR, "#search-results p.search-summary")))
    return [one.get_attribute("href") for one in browser.find_elements(By.CSS_SELECTOR, "#search-results ul.search li a")]


def background(browser):
    return browser.execute_script("return getComputedStyle(document.body).backgroundColor")


def main():
    site = pathlib.Path(sys.argv[1]).resolve()
    pictures = pathlib.Path(sys.argv[2]).resolve() if len(sys.argv) > 2 else None
    if shutil.which("chromium") is None or shutil.which("chromedriver") is None:
        print("SKIPPED: chromium or chromedriver is missing: scripts/install-packages browser")
        return 77
    if not (site / "index.html").exists():
        print("SKIPPED: there is no site; scripts/build-docs said why")
        return 77
    if pictures:
        pictures.mkdir(parents=True, exist_ok=True)
    pages = sorted(site.rglob("*.html"))
    check(len(pages) > 100, f"only {len(pages)} pages")

    browser = open_browser(DESKTOP)
    try:
        checked = check_links(browser, site, pages)
        check(checked > 1000, f"only {checked} links")
        # A reader searches for a class and for words of a guide.
        for words, page in (("ThreadPool", "reference/threading/thread_pool.html"), ("watchdog", "docs/"),
                            ("PropertyCache", "reference/typed/property_cache.html")):
            results = search(browser, site, words)
            check(any(page in one for one in results), f"a search for {words} finds {results}")
        check(not search(browser, site, "qqqqzzzz"), "a search for nothing finds something")
        messages = said(browser)
        check(not messages, f"the search's console says {messages}")
        # From a guide to a class and back.
        browser.get((site / "docs/threads-and-locks.html").as_uri())
        check(browser.find_elements(By.CSS_SELECTOR, "a[href*='reference/threading/']"), "the guide leads to no class")
        browser.get((site / "reference/threading.html").as_uri())
        check(browser.find_elements(By.CSS_SELECTOR, "article a[href*='threads-and-locks']"), "the classes lead to no guide")
        # Light and dark, at the press of a button.
        browser.get((site / "index.html").as_uri())
        seen = {background(browser)}
        for _ in range(2):
            next(one for one in browser.find_elements(By.CLASS_NAME, "theme-toggle") if one.is_displayed()).click()
            seen.add(background(browser))
        check(len(seen) == 2, f"the button for light and dark shows {seen}")
        # A mistake has to be noticed, else this proves nothing.
        browser.execute_script("console.error('noticed')")
        check(any("noticed" in one for one in said(browser)), "an error of the console is not noticed")
    finally:
        browser.quit()

    for size, name in ((DESKTOP, "desktop"), (PHONE, "phone")):
        browser = open_browser(size)
        try:
            for page in ("index", "docs/typed", "docs/performance", "docs/messages", "reference/threading/thread_pool"):
                if not (site / f"{page}.html").exists():
                    continue
                browser.get((site / f"{page}.html").as_uri())
                wide = browser.execute_script("return document.documentElement.scrollWidth")
                check(wide <= size[0], f"{page} is {wide} wide on a {name} of {size[0]}")
                picture(browser, pictures, f"{page.replace('/', '-')}-{name}")
            browser.execute_script("document.body.dataset.theme = 'dark'")
            picture(browser, pictures, f"dark-{name}")
        finally:
            browser.quit()
    print(f"{len(pages)} pages, {checked} links, {failures} failures")
    return 1 if failures else 0


def attempt():
    """One run in a process group of its own, of which nothing outlives it."""
    process = subprocess.Popen([sys.executable, __file__, *sys.argv[1:]], start_new_session=True,
                               env=os.environ | {"SITE_TEST_ATTEMPT": "1"})
    try:
        return process.wait()
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)


if __name__ == "__main__":
    if "SITE_TEST_ATTEMPT" in os.environ:
        try:
            sys.exit(main())
        except (InvalidSessionIdException, urllib3.exceptions.HTTPError) as lost:
            print(f"the browser is lost: {lost}")
            sys.exit(BROWSER_LOST)
    for _ in range(ATTEMPTS):
        status = attempt()
        if status != BROWSER_LOST:
            break
    sys.exit(status)
