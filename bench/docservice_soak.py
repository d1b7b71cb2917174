#!/usr/bin/env python3
"""The load of bench/docservice_soak.sh: SESSIONS sessions for DURATION seconds mixing listings,
chunked downloads (every byte checked) and imports through the record service's documents detail.

    docservice_soak.py URL SERVER_PID SEEDS.json DURATION SESSIONS IMPORTS(0|1)

SEEDS.json: {"<record UID>": {"<name>": "<sha256>", ...}, ...} for the documents put into each
record before. Prints one line of figures per check and exits 1 when a check fails.
"""
import base64
import hashlib
import http.client
import json
import os
import random
import sys
import threading
import time
from urllib.parse import urlparse

url, pid, seeds_file, duration, sessions, imports = sys.argv[1:7]
duration, sessions, imports = float(duration), int(sessions), imports == "1"
target = urlparse(url)
seeds = json.load(open(seeds_file))
storage = "{A48847CA-33D3-4EB0-A586-E316EA2E5322}"
chunk = 256 << 10

lock = threading.Lock()
counts = {"list": 0, "download": 0, "import": 0}
failures = []
imported = []  # (record, name, sha256, size) of each import the server confirmed


def rss_kib():
    for line in open(f"/proc/{pid}/status"):
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return 0


class Session:
    def __init__(self):
        self.conn = http.client.HTTPConnection(target.hostname, target.port, timeout=120)
        status, body = self.request("POST", "/login", {"user": "bench", "password": "bench-password-1",
                                                       "session_type": 1}, auth=False)
        if status != 200:
            raise RuntimeError(f"login {status}")
        self.token = body["session"]

    def request(self, method, path, payload, auth=True):
        headers = {"Content-Type": "application/json"}
        if auth:
            headers["Authorization"] = "Bearer " + self.token
        self.conn.request(method, path, json.dumps(payload), headers)
        r = self.conn.getresponse()
        data = r.read()
        return r.status, json.loads(data) if data else None

    def service(self, method, params):
        status, body = self.request("POST", "/services/IDocumentStore/" + method, params)
        if status != 200 or not body.get("MethodResult"):
            raise RuntimeError(f"{method}: {status} {json.dumps(body)[:200]}")
        return body["ResultInfo"]

    def listing(self, record):
        return self.service("QueryRecordResourceList",
                            {"StorageUID": storage, "SchemaName": "contacts", "RecordUID": record})

    def download(self, record, dbid):
        h, position = hashlib.sha256(), 0
        while True:
            info = self.service("DownloadRecordDocument", {
                "StorageUID": storage, "SchemaName": "contacts", "RecordUID": record,
                "ServerDBID": dbid, "Chunk": {"position": position, "size": chunk}})
            data = base64.b64decode(info["content"], validate=True)
            if info["chunk"]["position"] != position:
                raise RuntimeError(f"chunk at {info['chunk']['position']}, asked {position}")
            h.update(data)
            position += len(data)
            if len(data) < chunk:
                return h.hexdigest(), position

    def put(self, record, name, content):
        status, body = self.request("PUT", "/records/contacts/" + record, {"record_documents": {"insert": [{
            "name": name, "content": base64.b64encode(content).decode(), "content--encoding": "Base64",
            "remote_uid": name}]}})
        if status != 200:
            raise RuntimeError(f"import: {status} {json.dumps(body)[:200]}")
        if not any(i.get("remote_uid") == name for i in body.get("record_info", [])):
            raise RuntimeError(f"import: no record_info for {name}: {json.dumps(body)[:200]}")

    def close(self):
        try:
            self.request("POST", "/logout", {})
        finally:
            self.conn.close()


def documents(tree):
    """name -> (dbid, size) of every document of a listing."""
    out = {}
    for d in tree.get("documents", []):
        out[d["name"]] = (d["server_dbid"], d["size"])
    for sub in tree.get("directories", []):
        out.update(documents(sub))
    return out


def worker(n, deadline):
    rnd = random.Random(n)
    records = list(seeds)
    try:
        s = Session()
    except Exception as e:  # noqa: BLE001 - every failure is counted
        with lock:
            failures.append(f"session {n}: {e}")
        return
    done = 0
    while time.time() < deadline:
        record = rnd.choice(records)
        op = rnd.random()
        kind = "list" if op < 0.3 else "download" if op < 0.8 or not imports else "import"
        try:
            if kind == "list":
                docs = documents(s.listing(record))
                missing = [name for name in seeds[record] if name not in docs]
                if missing:
                    raise RuntimeError(f"listing lacks {missing[:3]}")
            elif kind == "download":
                docs = documents(s.listing(record))
                name = rnd.choice(sorted(seeds[record]))
                digest, size = s.download(record, docs[name][0])
                if digest != seeds[record][name]:
                    raise RuntimeError(f"{name}: content differs ({size} bytes)")
            else:
                content = os.urandom(rnd.randint(1, 64 << 10))
                name = f"imp-{n}-{done}.bin"
                s.put(record, name, content)
                with lock:
                    imported.append((record, name, hashlib.sha256(content).hexdigest(), len(content)))
            with lock:
                counts[kind] += 1
        except Exception as e:  # noqa: BLE001
            with lock:
                failures.append(f"{kind} by session {n}: {e}")
            # A broken connection is opened again; the session stays.
            s.conn.close()
            s.conn = http.client.HTTPConnection(target.hostname, target.port, timeout=120)
        done += 1
    try:
        s.close()
    except Exception as e:  # noqa: BLE001
        with lock:
            failures.append(f"logout {n}: {e}")


start = time.time()
deadline = start + duration
threads = [threading.Thread(target=worker, args=(n, deadline)) for n in range(sessions)]
for t in threads:
    t.start()
def heap_figures():
    """(heap in use, SQLite's memory) in MiB, as the server reports them."""
    s = Session()
    try:
        _, body = s.request("POST", "/host/IHostInfo/Statistics", {})
        return body["HeapInUse"] / 1048576, body["SQLiteMemory"] / 1048576
    finally:
        s.close()


first_at = min(60.0, duration / 5)
time.sleep(max(0.0, start + first_at - time.time()))
mem_first = rss_kib()
heap_first = heap_figures()
# Under load once more just before the end: the records have grown by every import since.
time.sleep(max(0.0, deadline - 3 - time.time()))
mem_loaded = rss_kib()
heap_loaded = heap_figures()
for t in threads:
    t.join()
elapsed = time.time() - start
# The end: the sessions have ended (their caches with them) and the server has tidied its heaps,
# which it does every 10 s.
time.sleep(12)
mem_end = rss_kib()
heap_end = heap_figures()

# Every import present with its size, and its bytes intact.
check = Session()
lost = []
for record in seeds:
    docs = documents(check.listing(record))
    for (r, name, digest, size) in imported:
        if r != record:
            continue
        if name not in docs or docs[name][1] != size:
            lost.append(f"{name} in {record}: {'missing' if name not in docs else 'size ' + str(docs[name][1])}")
            continue
        got, _ = check.download(record, docs[name][0])
        if got != digest:
            lost.append(f"{name} in {record}: content differs")
check.close()

total = sum(counts.values())
print(f"soak: {sessions} sessions for {elapsed:.0f} s: {total} operations "
      f"({counts['list']} listings, {counts['download']} downloads, {counts['import']} imports"
      f"{'' if imports else ' - imports off'}), {total / elapsed:.1f}/s")
print(f"  failed operations: {len(failures)}")
for f in failures[:10]:
    print(f"    {f}")
print(f"  imported documents checked afterwards: {len(imported) - len(lost)} of {len(imported)} present and intact")
for f in lost[:10]:
    print(f"    {f}")
growth = (mem_end - mem_first) / mem_first * 100 if mem_first else 0
print(f"  server memory: {mem_first / 1024:.1f} MiB after {first_at:.0f} s, {mem_loaded / 1024:.1f} MiB "
      f"3 s before the end, {mem_end / 1024:.1f} MiB at the end, after the sessions ended "
      f"({growth:+.1f}% against the first figure, target within 10%)")
print(f"  heap in use at those times: {heap_first[0]:.1f}, {heap_loaded[0]:.1f} and {heap_end[0]:.1f} MiB "
      f"(SQLite's share {heap_first[1]:.1f}, {heap_loaded[1]:.1f} and {heap_end[1]:.1f} MiB)")
sys.exit(1 if failures or lost or growth > 10 else 0)
