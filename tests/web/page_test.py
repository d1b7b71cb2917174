#!/usr/bin/env python3
"""The page in a headless Chromium against a started `docadmin serve` on a fresh database.

Walks what office staff do: sign in (a wrong password first), find a record through the search by
stored documents, upload two files by the file dialog, create a folder and upload into it,
download a file and compare its bytes, replace it and see two versions, delete one, sign out and
find the session gone. Screenshots of the main screens in English and German and at a phone's
width go to the artefact folder. Every request the browser makes must go to the server.

Exit 77 (skipped) when Chromium, its driver or Selenium is missing, except under CI=true, where
that is a failure.
"""
import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request
from pathlib import Path

SKIP = 77
CONTACTS_STORAGE = "{A48847CA-33D3-4EB0-A586-E316EA2E5322}"


def missing_browser():
    try:
        import selenium  # noqa: F401
    except ImportError:
        return "python3-selenium"
    for program in ("chromium", "chromedriver"):
        if not shutil.which(program):
            return program
    return None


class Server:
    """docadmin serve on a free loopback port over a fresh data folder with user alice."""

    def __init__(self, docadmin, folder):
        self.folder = folder
        self.config = folder / "docadmin.toml"
        self.config.write_text(f'data_dir = "{folder / "data"}"\n')
        subprocess.run([docadmin, "user", "add", "alice", "--admin", "--password-stdin",
                        "--config", str(self.config)], input=b"a-long-password\n", check=True)
        self.process = subprocess.Popen(
            [docadmin, "serve", "--listen", "127.0.0.1:0", "--config", str(self.config),
             "--access-log", ""], stderr=subprocess.PIPE, text=True)
        self.log = []
        found = threading.Event()

        def read():
            for line in self.process.stderr:
                self.log.append(line)
                m = re.search(r"listening on (http://\S+)", line)
                if m:
                    self.base = m.group(1)
                    found.set()
        threading.Thread(target=read, daemon=True).start()
        if not found.wait(60):
            self.stop()
            raise RuntimeError("serve didn't start:\n" + "".join(self.log))

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(30)
            except subprocess.TimeoutExpired:
                self.process.kill()

    def call(self, method, path, body=None, token=None, cookie=None):
        request = urllib.request.Request(self.base + path, method=method,
                                         data=None if body is None else json.dumps(body).encode())
        if token:
            request.add_header("Authorization", "Bearer " + token)
        if cookie:
            request.add_header("Cookie", cookie)
        try:
            with urllib.request.urlopen(request, timeout=30) as r:
                return r.status, json.loads(r.read() or b"null")
        except urllib.error.HTTPError as e:
            return e.code, json.loads(e.read() or b"null")


class Page:
    """One headless Chromium on the server's page, with its network log."""

    def __init__(self, server, language, downloads):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        downloads.mkdir(exist_ok=True)
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        for a in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                  f"--lang={language}", "--window-size=1280,900", "--no-first-run",
                  "--disable-background-networking", "--disable-component-update",
                  "--disable-sync", "--disable-default-apps"):
            options.add_argument(a)
        options.add_experimental_option("prefs", {
            "intl.accept_languages": language,
            "download.default_directory": str(downloads),
            "download.prompt_for_download": False,
        })
        options.set_capability("goog:loggingPrefs", {"performance": "ALL"})
        self.driver = webdriver.Chrome(service=Service(shutil.which("chromedriver")),
                                       options=options)
        self.driver.execute_cdp_cmd("Page.setDownloadBehavior",
                                    {"behavior": "allow", "downloadPath": str(downloads)})
        self.server = server
        self.requests = []
        self.driver.get(server.base + "/")

    def collect_requests(self):
        for entry in self.driver.get_log("performance"):
            message = json.loads(entry["message"])["message"]
            if message.get("method") == "Network.requestWillBeSent":
                self.requests.append(message["params"]["request"]["url"])

    def foreign_requests(self):
        self.collect_requests()
        own = self.server.base + "/"
        return [u for u in self.requests
                if not (u.startswith(own) or u.startswith("blob:") or u.startswith("data:"))]

    def el(self, selector):
        return self.driver.find_element("css selector", selector)

    def wait(self, condition, what, timeout=20):
        end = time.time() + timeout
        while time.time() < end:
            try:
                value = condition()
                if value:
                    return value
            except Exception:  # the page is still changing
                pass
            time.sleep(0.1)
        error = self.driver.find_elements("css selector", "#error:not([hidden])")
        raise AssertionError(f"timed out waiting for {what}"
                             + (f"; the page says: {error[0].text}" if error else ""))

    def visible(self, selector):
        return self.wait(lambda: self.el(selector).is_displayed() and self.el(selector), selector)

    def login(self, password="a-long-password"):
        """Signs in as alice; with the right password waits for the application."""
        for field, text in (("#login-user", "alice"), ("#login-password", password)):
            self.visible(field).clear()
            self.el(field).send_keys(text)
        self.el("#login-submit").click()
        if password == "a-long-password":
            self.visible("#app-view")

    def document_names(self):
        return [e.text for e in self.driver.find_elements("css selector", "#tree li.document .name")]

    def document_item(self, name):
        for item in self.driver.find_elements("css selector", "#tree li.document"):
            if item.find_element("css selector", ".name").text == name:
                return item
        return None

    def press(self, name, label):
        """Clicks a document's button, also while the tree is being redrawn."""
        def click():
            self.document_item(name).find_element(
                "css selector", f"button[aria-label^='{label}:']").click()
            return True
        self.wait(click, f"{label} of {name}")

    def shot(self, folder, name):
        self.driver.save_screenshot(str(folder / f"{name}.png"))

    def sign_out(self):
        """Signs out; every request the page made went to the server."""
        foreign = self.foreign_requests()
        check(not foreign, f"requests to other hosts: {foreign}")
        self.el("#logout").click()
        self.visible("#login-view")

    def quit(self):
        self.driver.quit()


def check(condition, message):
    if not condition:
        raise AssertionError(message)


def prepare_records(server):
    """Three contacts; Clark holds a stored offer, so that the document search finds only him."""
    status, answer = server.call("POST", "/login",
                                 {"user": "alice", "password": "a-long-password", "session_type": 1})
    check(status == 200, f"login for the set-up: {status} {answer}")
    token = answer["session"]
    uids = {}
    for name in ("Adams", "Baker", "Clark"):
        status, answer = server.call("POST", "/records/contacts", {"name": name}, token)
        check(status == 201, f"insert {name}: {status} {answer}")
        uids[name] = answer["record_info"][0]["server_uid"]
    import base64
    status, answer = server.call("PUT", f"/records/contacts/{uids['Clark']}", {
        "record_documents": {"insert": [{
            "name": "Offer-2024.txt", "content--encoding": "Base64",
            "content": base64.b64encode(b"an offer").decode()}]}}, token)
    check(status == 200, f"document for Clark: {status} {answer}")
    # A document is reached only through its own record.
    status, answer = server.call("POST", "/services/IDocumentStore/QueryRecordResourceList", {
        "StorageUID": CONTACTS_STORAGE, "SchemaName": "contacts", "RecordUID": uids["Clark"]},
        token)
    offer = answer["ResultInfo"]["documents"][0]["server_dbid"]
    status, answer = server.call("POST", "/record-documents/delete", {
        "storage": CONTACTS_STORAGE, "schema": "contacts", "record": uids["Adams"], "id": offer},
        token)
    check(status == 404, f"delete through another record: {status} {answer}")
    server.call("POST", "/logout", token=token)
    return uids


def scenario(server, work, artefacts):
    files = work / "files"
    files.mkdir()
    # The picture's binary content of several download chunks survives the round trip.
    contents = {"report.txt": b"first report\n" * 100,
                "picture.png": bytes(range(256)) * 4500 + b"end",
                "minutes.txt": "Protokoll über Änderungen\n".encode() * 10,
                "report-v2.txt": b"second report\n" * 50}
    for name, data in contents.items():
        (files / name).write_bytes(data)
    first, second, nested, newer = (files / name for name in contents)
    prepare_records(server)

    downloads = work / "downloads-en"
    downloads.mkdir()
    page = Page(server, "en-US", downloads)
    try:
        page.visible("#login-view")
        page.shot(artefacts, "en-login")
        page.login("wrong-password")
        page.wait(lambda: "wrong" in page.el("#login-message").text, "the wrong-password message")
        page.login()
        check("alice" in page.el("#whoami").text, "the signed-in user is shown")

        # Find Clark by the name of his stored document.
        page.el("#doc-search").send_keys("offer")
        page.el("#search-button").click()
        page.wait(lambda: [b.text for b in page.driver.find_elements(
            "css selector", "#records-body button")] == ["Clark"], "Clark alone in the list")
        page.el("#records-body button").click()
        page.wait(lambda: page.document_names() == ["Offer-2024.txt"], "Clark's stored offer")

        # Two files by the file dialog into the record's main folder.
        page.el("#file-input").send_keys(f"{first}\n{second}")
        page.wait(lambda: sorted(page.document_names()) ==
                  ["Offer-2024.txt", "picture.png", "report.txt"], "the two uploads in the tree")

        # Drag and drop onto the drop zone (a drop event with a file, as a browser sends it).
        page.driver.execute_script("""
            const data = new DataTransfer();
            data.items.add(new File(["dropped"], "dropped.txt", {type: "text/plain"}));
            document.getElementById("drop-zone").dispatchEvent(
                new DragEvent("drop", {dataTransfer: data, bubbles: true, cancelable: true}));""")
        page.wait(lambda: "dropped.txt" in page.document_names(), "the dropped file in the tree")

        # A folder, and a file uploaded into it.
        check(page.el("#new-folder").is_displayed(), "the server offers no folder creation")
        page.el("#new-folder").click()
        page.visible("#folder-name").send_keys("Minutes")
        page.el("#folder-create").click()
        page.wait(lambda: page.el("#target-folder").get_attribute("value") == '"Minutes"',
                  "the new folder chosen as the upload target")
        page.el("#file-input").send_keys(str(nested))
        page.wait(lambda: page.driver.find_elements(
            "css selector", "#tree li.folder li.document .name")[0].text == "minutes.txt",
            "the upload in the opened folder")
        # Closing and opening the folder hides and shows its content.
        page.el("#tree li.folder .toggle").click()
        page.wait(lambda: "minutes.txt" not in page.document_names(), "the folder closed")
        check(page.el("#tree li.folder .toggle").get_attribute("aria-expanded") == "false",
              "aria-expanded of a closed folder")
        page.el("#tree li.folder .toggle").click()
        page.wait(lambda: "minutes.txt" in page.document_names(), "the folder open again")
        page.shot(artefacts, "en-documents")

        # Download and compare bytes.
        page.press("picture.png", "Download")
        target = downloads / "picture.png"
        page.wait(lambda: target.exists() and target.stat().st_size == second.stat().st_size,
                  "the download")
        check(target.read_bytes() == second.read_bytes(), "downloaded bytes differ")

        # A preview of an image opens in the page.
        page.press("picture.png", "Preview")
        page.visible("#preview-dialog")
        check(page.el("#preview-body img").get_attribute("src").startswith("blob:"),
              "the preview shows the image")
        page.el("#preview-dialog [data-close]").click()

        # Replace: the old content goes to the archive; two versions are listed.
        page.press("report.txt", "Replace")
        page.wait(lambda: page.el("#replace-input"), "the replace file dialog").send_keys(str(newer))
        page.wait(lambda: "archived" in page.el("#status").text, "the archive message")
        page.press("report.txt", "Versions")
        page.visible("#versions-dialog")
        page.wait(lambda: len(page.driver.find_elements("css selector", "#versions-body tr")) == 2,
                  "two versions")
        page.shot(artefacts, "en-versions")
        page.el("#versions-dialog [data-close]").click()

        # Delete after the confirmation; Escape on the question deletes nothing.
        from selenium.webdriver.common.keys import Keys
        page.press("picture.png", "Delete")
        page.visible("#confirm-dialog").send_keys(Keys.ESCAPE)
        page.wait(lambda: not page.el("#confirm-dialog").is_displayed(), "the question closed")
        time.sleep(1)  # a confirmed delete would have sent its request by now
        page.collect_requests()
        check(not any(u.endswith("/record-documents/delete") for u in page.requests)
              and "picture.png" in page.document_names(), "Escape deleted the document")
        page.press("picture.png", "Delete")
        page.visible("#confirm-dialog")
        page.el("#confirm-ok").click()
        page.wait(lambda: "picture.png" not in page.document_names(), "the deletion")

        # An ended session: the page says so and asks for a new sign-in.
        cookie = page.driver.get_cookie("docadmin_session")
        check(cookie and cookie.get("httpOnly") and cookie.get("sameSite") == "Strict",
              f"session cookie {cookie}")
        page.driver.delete_cookie("docadmin_session")
        page.el("#search-button").click()
        page.wait(lambda: "expired" in page.el("#login-message").text, "the expired-session message")
        page.login()
        page.shot(artefacts, "en-records")
        phone_shots(page, artefacts, "en")

        # Sign out: the session is gone on the server.
        cookie = page.driver.get_cookie("docadmin_session")["value"]
        check(server.call("GET", "/session", cookie=f"docadmin_session={cookie}")[0] == 200,
              "the session before signing out")
        page.sign_out()
        check(server.call("GET", "/session", cookie=f"docadmin_session={cookie}")[0] == 401,
              "the session after signing out")
        check(len(page.requests) > 10, "the network log recorded the page's requests")
    except Exception:
        page.shot(artefacts, "failure")
        raise
    finally:
        page.quit()


def phone_shots(page, artefacts, prefix):
    page.driver.set_window_size(390, 844)
    page.wait(lambda: page.driver.execute_script(
        "return document.documentElement.scrollWidth <= window.innerWidth + 1"),
        "no sideways scrolling at a phone's width")
    page.driver.execute_script("window.scrollTo(0, 0)")
    page.shot(artefacts, f"{prefix}-phone-records")
    page.driver.execute_script("document.getElementById('documents-pane').scrollIntoView()")
    page.shot(artefacts, f"{prefix}-phone-documents")
    page.driver.set_window_size(1280, 900)


def german_screens(server, work, artefacts):
    """The main screens in German, also at a phone's width."""
    page = Page(server, "de-DE", work / "downloads-de")
    try:
        page.visible("#login-view")
        check(page.el("#login-heading").text == "Anmelden", "German texts")
        page.shot(artefacts, "de-login")
        page.login()
        page.wait(lambda: [b for b in page.driver.find_elements(
            "css selector", "#records-body button") if b.text == "Clark"][0], "Clark").click()
        page.wait(lambda: page.document_names(), "Clark's documents")
        check(page.el("#documents-heading").text == "Dokumente von Clark", "German heading")
        page.shot(artefacts, "de-documents")
        phone_shots(page, artefacts, "de")
        page.sign_out()
    finally:
        page.quit()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--docadmin", required=True)
    parser.add_argument("--artefacts", required=True)
    args = parser.parse_args()
    missing = missing_browser()
    if missing:
        print(f"page test: {missing} is missing", file=sys.stderr)
        return 1 if os.environ.get("CI") == "true" else SKIP
    artefacts = Path(args.artefacts)
    shutil.rmtree(artefacts, ignore_errors=True)
    artefacts.mkdir(parents=True)
    work = Path(tempfile.mkdtemp(prefix="docadmin-page-"))
    server = Server(args.docadmin, work)
    try:
        started = time.time()
        scenario(server, work, artefacts)
        german_screens(server, work, artefacts)
        print(f"page test: passed in {time.time() - started:.1f} s; screenshots in {artefacts}")
        return 0
    except AssertionError as e:
        print(f"page test: FAILED: {e}", file=sys.stderr)
        return 1
    finally:
        server.stop()
        if server.process.returncode not in (0, None):
            print("".join(server.log[-30:]), file=sys.stderr)
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
