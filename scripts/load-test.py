#!/usr/bin/env python3
"""Several orvik-identity exec processes writing and reading one store at once.

Writers link random identities to random persons (each request one write
transaction); readers search and read the counts. Reports, per kind, the number of
requests, failures with case "database" (for example "database is locked") and
latencies. Exits 1 when any request failed with a database error or the store
fails `orvik-identity check` afterwards.

    python3 scripts/load-test.py build/default/app/orvik-identity --seconds 60 \\
        --writers 4 --readers 4 [--key KEY]
"""
import argparse, json, os, random, subprocess, sys, tempfile, threading, time

parser = argparse.ArgumentParser()
parser.add_argument("binary")
parser.add_argument("--seconds", type=float, default=60)
parser.add_argument("--writers", type=int, default=4)
parser.add_argument("--readers", type=int, default=4)
parser.add_argument("--key", default="load test key")
parser.add_argument("--plain", action="store_true", help="an unencrypted store")
args = parser.parse_args()

workdir = tempfile.mkdtemp(prefix="orvik-load-")
db = os.path.join(workdir, "load.db")
env = dict(os.environ)
if not args.plain:
    env["ORVIK_IDENTITY_KEY"] = args.key
subprocess.run([args.binary, "demo", "--db", db], check=True, env=env,
               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

def ask(session, request):
    session.stdin.write(json.dumps(request) + "\n")
    session.stdin.flush()
    return json.loads(session.stdout.readline())

setup = subprocess.Popen([args.binary, "exec", "--db", db], env=env, text=True,
                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)
identities = [r["id"] for r in ask(setup, {"op": "searchSourceIdentities", "args": {
    "query": "", "limit": 100000, "excludingSourceIdentityIDs": []}})["ok"]]
persons = [r["id"] for r in ask(setup, {"op": "searchUserStatedPeople", "args": {
    "query": "", "limit": 100000, "excludingPersonIDs": []}})["ok"]]
setup.stdin.close(); setup.wait()
print(f"store: {len(identities)} identities, {len(persons)} persons; "
      f"{args.writers} writers, {args.readers} readers, {args.seconds:.0f} s, "
      f"{'plain' if args.plain else 'encrypted'}")

results = {"write": [], "read": []}
failures = {"write": [], "read": []}
lock = threading.Lock()
deadline = time.monotonic() + args.seconds

def worker(kind, seed):
    rnd = random.Random(seed)
    session = subprocess.Popen([args.binary, "exec", "--db", db], env=env, text=True,
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    while time.monotonic() < deadline:
        if kind == "write":
            request = {"op": "linkIdentity", "args": {"request": {
                "personID": rnd.choice(persons), "sourceIdentityID": rnd.choice(identities),
                "confirmed": True}}}
        elif rnd.random() < 0.5:
            request = {"op": "searchSourceIdentities", "args": {
                "query": rnd.choice("aeiou"), "limit": 20, "excludingSourceIdentityIDs": []}}
        else:
            request = {"op": "identityCorrectionsReadback"}
        started = time.monotonic()
        answer = ask(session, request)
        elapsed = time.monotonic() - started
        with lock:
            results[kind].append(elapsed)
            if answer.get("error", {}).get("case") == "database":
                failures[kind].append(answer["error"]["message"])
    session.stdin.close(); session.wait()

threads = [threading.Thread(target=worker, args=("write", i)) for i in range(args.writers)]
threads += [threading.Thread(target=worker, args=("read", 100 + i)) for i in range(args.readers)]
for t in threads: t.start()
for t in threads: t.join()

def pct(values, p):
    values = sorted(values)
    return values[min(len(values) - 1, int(p * len(values)))] * 1000 if values else 0

for kind in ("write", "read"):
    v = results[kind]
    print(f"{kind}s: {len(v)} requests, {len(failures[kind])} database failures, "
          f"p50 {pct(v, .5):.1f} ms, p99 {pct(v, .99):.1f} ms, max {pct(v, 1):.1f} ms")
    for message in sorted(set(failures[kind]))[:5]:
        print(f"  failure: {message}")
check = subprocess.run([args.binary, "check", "--db", db], env=env, capture_output=True, text=True)
print(check.stdout.strip().splitlines()[-1] if check.stdout else check.stderr.strip())
sys.exit(0 if check.returncode == 0 and not failures["write"] and not failures["read"] else 1)
