#!/usr/bin/env python3
"""Compares what utils-inspect reads from the variety databases with what the sqlite3 engine reads.

    compare_rows.py --tool PATH_TO_utils-inspect --work DIR [--seed N] [--count N] [--huge] [--jobs N]
    compare_rows.py --reader engine --work DIR ...

Makes the databases with make_variety.py into DIR (or reuses them when DIR holds a run of the same
generator, seed and count), then for every database:
  - `tables DB --json` and `tables DB --all --json` against the engine's schema: every table by its
    exact name, its root page, rowid or not, STRICT or not, and its column names as
    PRAGMA table_xinfo gives them; with --all, every index with its table and root page;
  - for every table of the schema (sqlite_master, sqlite_sequence and sqlite_stat1 included),
    `rows DB TABLE --json` and `rows DB TABLE --csv` against the engine's rows, value by value and
    type by type: rowid tables in rowid order with the rowid first, tables without rowid in
    primary-key order. VIRTUAL generated columns are not in the file and are not compared.
A damaged copy is compared with the engine's reading of itself, or of its original when the engine
refuses it, and the tool must say on stderr what it tolerated in its length or page count.

--reader engine puts the engine in the tool's place (it writes the same JSON and CSV), so the
comparison itself is proven: it must pass, and the faults planted in a known row must be caught.
Prints a summary and the first mismatches; exits 1 on any mismatch.
"""
import argparse
import base64
import concurrent.futures
import hashlib
import json
import math
import os
import re
import sqlite3
import struct
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import make_variety  # noqa: E402

qid = make_variety.qid
LENGTH_DAMAGE = ("trailing_", "count_")  # damage the reader cannot miss, and must report


# The engine's reading --------------------------------------------------------------------------
class Table:
    def __init__(self, name, root, columns, without_rowid, strict):
        self.name, self.root, self.columns = name, root, columns  # columns: [(name, hidden)]
        self.without_rowid, self.strict = without_rowid, strict
        self.names = [c for c, _ in columns]
        # Positions in a row of the output (after the rowid, if any) of VIRTUAL generated columns
        self.skip = {i + (not without_rowid) for i, (_, hidden) in enumerate(columns) if hidden == 2}
        self.rows = None  # None: not read (virtual tables, or too large to compare)


def rows_query(con, t):
    """The engine's rows of t as the reader must give them."""
    cols = ", ".join(qid(n) for n in t.names)
    if t.without_rowid:
        index = con.execute("SELECT name FROM pragma_index_list(?) WHERE origin = 'pk'", (t.name,)).fetchone()[0]
        keys = con.execute("SELECT name, desc, coll FROM pragma_index_xinfo(?) WHERE key", (index,)).fetchall()
        order = ", ".join(f"{qid(n)} COLLATE {coll}{' DESC' if desc else ''}" for n, desc, coll in keys)
        return f"SELECT {cols} FROM {qid(t.name)} ORDER BY {order}"
    lower = {n.lower() for n in t.names}
    rowid = next((n for n in ("rowid", "oid", "_rowid_") if n not in lower), None)
    if rowid is None:  # every name of the rowid is a column: read it through the INTEGER PRIMARY KEY
        pk = con.execute("SELECT name, upper(type) FROM pragma_table_xinfo(?) WHERE pk", (t.name,)).fetchall()
        if len(pk) != 1 or pk[0][1] != "INTEGER":
            raise RuntimeError(f"{t.name}: no way to read the rowid")
        rowid = qid(pk[0][0])
    return f"SELECT {rowid}, {cols} FROM {qid(t.name)} ORDER BY {rowid}"


class View:
    """One database as the engine reads it: its tables (with rows) and indexes."""

    def __init__(self, path, skip_rows=()):
        con = sqlite3.connect(f"file:{path}?mode=ro", uri=True)
        flags = {n: (wr, strict) for n, wr, strict in con.execute(
            "SELECT name, wr, strict FROM pragma_table_list WHERE schema = 'main'")}
        schema = con.execute("SELECT type, name, tbl_name, rootpage FROM sqlite_master ORDER BY rowid").fetchall()
        self.tables = []
        for name, root in [("sqlite_master", 1)] + [(n, r) for k, n, _, r in schema if k == "table"]:
            columns = con.execute("SELECT name, hidden FROM pragma_table_xinfo(?)", (name,)).fetchall()
            wr, strict = flags.get(name, (0, 0))
            t = Table(name, root, columns, bool(wr), bool(strict))
            if root and name not in skip_rows:
                t.rows = [list(r) for r in con.execute(rows_query(con, t))]
            self.tables.append(t)
        self.indexes = [(n, tbl, r) for k, n, tbl, r in schema if k == "index"]
        con.close()


def engine_view(path, original, skip_rows):
    """The engine's reading of path, or of its original when the engine refuses the damaged copy."""
    try:
        return View(path, skip_rows), False
    except sqlite3.DatabaseError:
        if not original:
            raise
        return View(original, skip_rows), True


# The output contract, written from the engine's reading -------------------------------------
def json_value(v):
    if v is None:
        return "null"
    if isinstance(v, bytes):
        return '"' + base64.b64encode(v).decode() + '"'
    if isinstance(v, float):
        return "9.0e999" if v == math.inf else "-9.0e999" if v == -math.inf else repr(v)
    return json.dumps(v, ensure_ascii=False)


def csv_value(v):
    if v is None:
        return ""
    if isinstance(v, str):
        return '"' + v.replace('"', '""') + '"'
    if isinstance(v, bytes):
        return "x'" + v.hex() + "'"
    if isinstance(v, float):
        return "Inf" if v == math.inf else "-Inf" if v == -math.inf else repr(v)
    return str(v)


def csv_name(n):
    return '"' + n.replace('"', '""') + '"' if re.search(r'[,"\r\n]', n) else n


def render_rows(t, fmt):
    rows = [[None if i in t.skip else v for i, v in enumerate(r)] for r in t.rows]
    if fmt == "json":
        return "[" + ",\n".join("[" + ",".join(map(json_value, r)) + "]" for r in rows) + "]\n"
    header = ([] if t.without_rowid else ["rowid"]) + t.names
    return "".join(",".join(line) + "\r\n" for line in
                   [map(csv_name, header)] + [map(csv_value, r) for r in rows])


def render_tables(view, with_indexes):
    out = [{"name": t.name, "type": "table", "rootPage": t.root, "withoutRowid": t.without_rowid,
            "strict": t.strict, "columnNames": t.names} for t in view.tables if t.name != "sqlite_master"]
    if with_indexes:
        out += [{"name": n, "type": "index", "table": tbl, "rootPage": r} for n, tbl, r in view.indexes]
    return json.dumps(out, ensure_ascii=False)


class EngineReader:
    """Stands in for the tool: takes the tool's arguments and writes the contract's output from
    the engine's reading (VIRTUAL generated columns as null, as the tool cannot read them)."""

    def __init__(self, views, damaged):
        self.views, self.damaged = views, damaged  # path -> (View, refused); path -> damage kind

    def __call__(self, argv):
        cut = argv.index("--") if "--" in argv else len(argv)
        options = [a for a in argv[1:cut] if a.startswith("--")]
        positional = [a for a in argv[1:cut] if not a.startswith("--")] + argv[cut + 1:]
        view = self.views[positional[0]][0]
        note = f"tolerated: {self.damaged[positional[0]]}\n".encode() if positional[0] in self.damaged else b""
        if argv[0] == "tables":
            return 0, render_tables(view, "--all" in options).encode(), note
        t = next(t for t in view.tables if t.name == positional[1])
        return 0, render_rows(t, "json" if "--json" in options else "csv").encode(), note


def tool_reader(path):
    def run(argv):
        try:
            p = subprocess.run([path] + argv, capture_output=True, timeout=300)
            return p.returncode, p.stdout, p.stderr
        except subprocess.TimeoutExpired:
            return "timeout", b"", b""
    return run


# Comparing ---------------------------------------------------------------------------------------
def same_real(a, b):
    return struct.pack("<d", a) == struct.pack("<d", b)


def reject_constant(name):
    raise ValueError(f"{name} is not a JSON number")


def check_json_value(expected, got):
    """None when got is what the contract writes for expected; otherwise 'type' or 'value'."""
    if isinstance(expected, bytes):
        expected = base64.b64encode(expected).decode()
    if type(got) is not type(expected):
        return "type"
    ok = same_real(expected, got) if isinstance(got, float) else expected == got
    return None if ok else "value"


CSV_PLAIN = re.compile(r'[^,"\r\n]*')
CSV_INT = re.compile(r"-?[0-9]+")
CSV_BLOB = re.compile(r"x'((?:[0-9a-fA-F]{2})*)'")
CSV_REAL = re.compile(r"-?(?:[0-9]+\.?[0-9]*|\.[0-9]+)(?:[eE][-+]?[0-9]+)?")


def check_csv_value(expected, field):
    text, quoted = field
    if expected is None:
        return None if text == "" and not quoted else "type"
    if isinstance(expected, str):
        return None if quoted and text == expected else "type" if not quoted else "value"
    if quoted:
        return "type"
    if isinstance(expected, bytes):
        m = CSV_BLOB.fullmatch(text)
        return "type" if not m else None if bytes.fromhex(m.group(1)) == expected else "value"
    if isinstance(expected, int):
        return "type" if not CSV_INT.fullmatch(text) else None if int(text) == expected else "value"
    if math.isinf(expected):
        return None if text == ("Inf" if expected > 0 else "-Inf") else "value"
    if not CSV_REAL.fullmatch(text) or not re.search(r"[.eE]", text):
        return "type"
    return None if same_real(float(text), expected) else "value"


def parse_csv(text):
    """RFC 4180 records, each a list of (text, was quoted); raises ValueError where the text
    breaks the format (CRLF after every record, no bare quote or line feed outside quotes)."""
    records, i, n = [], 0, len(text)
    while i < n:
        record = []
        while True:
            if text.startswith('"', i):
                parts, j = [], i + 1
                while True:
                    k = text.find('"', j)
                    if k < 0:
                        raise ValueError(f"unterminated quoted field at offset {i}")
                    parts.append(text[j:k])
                    if not text.startswith('""', k):
                        break
                    parts.append('"')
                    j = k + 2
                record.append(("".join(parts), True))
                i = k + 1
            else:
                m = CSV_PLAIN.match(text, i)
                record.append((m.group(), False))
                i = m.end()
            if text.startswith(",", i):
                i += 1
            elif text.startswith("\r\n", i):
                i += 2
                break
            else:
                raise ValueError(f"expected a comma or CRLF at offset {i}: {text[i:i + 20]!r}")
        records.append(record)
    return records


def show(v):
    """A value as it came, with its type; a CSV field as written."""
    kind = {type(None): "null", int: "integer", float: "real", str: "text", bytes: "blob",
            tuple: "CSV field", list: "array", bool: "bool", dict: "object"}.get(type(v), type(v).__name__)
    text = repr(('"' + v[0].replace('"', '""') + '"' if v[1] else v[0]) if isinstance(v, tuple) else v)
    return (text if len(text) <= 70 else text[:67] + "...") + f" ({kind})"


NOTHING = object()


class Result:
    def __init__(self):
        self.mismatches, self.values, self.rows = [], 0, 0

    def add(self, what, where, expected=NOTHING, got=NOTHING):
        self.mismatches.append((what, where, "" if expected is NOTHING else show(expected),
                                "" if got is NOTHING else show(got)))


def check_rows(run, db, path, t, fmt, result):
    argv = ["rows", path, t.name, "--" + fmt] if not t.name.startswith("-") else ["rows", path, "--" + fmt, "--", t.name]
    code, out, err = run(argv)
    where = f"{db} | {t.name!r} | {fmt}"
    if code != 0:
        return result.add("exit code", where, 0, f"{code}: {err.decode(errors='replace').strip()[:200]}")
    try:
        text = out.decode("utf-8")
        if fmt == "json":
            got = json.loads(text, parse_constant=reject_constant)
            if not isinstance(got, list) or not all(isinstance(r, list) for r in got):
                raise ValueError("not an array of arrays")
        else:
            records = parse_csv(text)
            header = ([] if t.without_rowid else ["rowid"]) + t.names
            if not records or [f for f, _ in records[0]] != header:
                result.add("header", where, header, [f for f, _ in records[0]] if records else [])
            got = records[1:]
    except ValueError as e:
        return result.add("not " + fmt.upper(), where, got=f"{e}"[:200])
    check = check_json_value if fmt == "json" else check_csv_value
    names = t.names if t.without_rowid else ["rowid"] + t.names
    if len(got) != len(t.rows):
        result.add("row count", where, len(t.rows), len(got))
    for n, (want, have) in enumerate(zip(t.rows, got)):
        row = f"row {n}" if t.without_rowid else f"rowid {want[0]}"
        if len(have) != len(want):
            result.add("row length", f"{where} | {row}", len(want), len(have))
            continue
        result.rows += fmt == "json"
        for i, (e, g) in enumerate(zip(want, have)):
            if i in t.skip:
                continue
            result.values += fmt == "json"
            what = check(e, g)
            if what:
                result.add(what, f"{where} | {row} | {names[i]!r}", e, g)


def check_tables(run, db, path, view, with_indexes, damage, result):
    argv = ["tables", path, "--json"] + (["--all"] if with_indexes else [])
    code, out, err = run(argv)
    where = f"{db} | tables{' --all' if with_indexes else ''}"
    if code != 0:
        return result.add("exit code", where, 0, f"{code}: {err.decode(errors='replace').strip()[:200]}")
    if damage and damage["kind"].startswith(LENGTH_DAMAGE) and not err.strip():
        result.add("stderr", where, f"a note on {damage['kind']}", "nothing on stderr")
    try:
        got = json.loads(out.decode("utf-8"))
        if not isinstance(got, list) or not all(isinstance(o, dict) for o in got):
            raise ValueError("not an array of objects")
    except ValueError as e:
        return result.add("not JSON", where, got=f"{e}"[:200])
    listed = {}
    for o in got:
        if o.get("name") not in ("sqlite_master", "sqlite_schema") or o.get("type") != "table":
            listed.setdefault((o.get("type"), o.get("name")), []).append(o)
    for t in view.tables:
        if t.name == "sqlite_master":
            continue
        entry = listed.pop(("table", t.name), [None])[0]
        result.values += 1
        if entry is None:
            if t.root:  # a virtual table has no b-tree: listing it is optional
                result.add("table missing", f"{where} | {t.name!r}")
            continue
        if not t.root:
            continue
        for key, want in [("rootPage", t.root), ("withoutRowid", t.without_rowid), ("strict", t.strict),
                          ("columnNames", t.names)]:
            if entry.get(key) != want or type(entry.get(key)) is not type(want):
                result.add("table " + key, f"{where} | {t.name!r}", want, entry.get(key, "(absent)"))
    for name, tbl, root in view.indexes if with_indexes else []:
        entry = listed.pop(("index", name), [None])[0]
        result.values += 1
        if entry is None:
            result.add("index missing", f"{where} | {name!r}")
        elif [entry.get("table"), entry.get("rootPage")] != [tbl, root]:
            result.add("index entry", f"{where} | {name!r}", [tbl, root], [entry.get("table"), entry.get("rootPage")])
    for (kind, name), entries in listed.items():
        result.add("extra entry", f"{where} | {kind} {name!r}" + (f" (x{len(entries)})" if len(entries) > 1 else ""))


def planted_faults():
    """Checks that the comparison catches faults planted in the output for one known row:
    returns the faults it let through."""
    t = Table("t", 2, [("a", 0), ("b", 0), ("c", 0), ("d", 0), ("e", 0), ("f", 0), ("g", 0), ("h", 0)],
              False, False)
    t.rows = [[7, None, 100000, 1.0, -0.0, "", b"\x00\xff", 'say "hi"', 2**63 - 1]]
    good = {fmt: render_rows(t, fmt) for fmt in ("json", "csv")}
    faults = [("json", "100000", "34720"), ("json", "null", "0"), ("json", "1.0", "1"),
              ("json", "-0.0", "0.0"), ("json", "9223372036854775807", "9.223372036854776e18"),
              ("json", '"AP8="', '"\\u0000\\u00ff"'), ("json", '"say', '"Say'), ("json", "[7,", "[8,"),
              ("csv", ',"",', ",,"), ("csv", ",,", ',"",'), ("csv", "x'00ff'", "\"x'00ff'\""),
              ("csv", "1.0", "1"), ("csv", "-0.0", "0.0"), ("csv", "100000", "100000.0"),
              ("csv", "\r\n", "\n"), ("csv", "rowid,", "id,")]
    missed = []
    for fmt, old, new in [("json", "", ""), ("csv", "", "")] + faults:
        text = good[fmt].replace(old, new, 1) if old else good[fmt]
        result = Result()
        check_rows(lambda argv: (0, text.encode(), b""), "planted", "t.db", t, fmt, result)
        if bool(result.mismatches) != bool(old):
            missed.append(f"{fmt}: {old!r} -> {new!r}" if old else f"{fmt}: the good output {result.mismatches}")
    return missed


# The run -------------------------------------------------------------------------------------------
def load_manifest(work, seed, count, huge):
    """The manifest of a run in work made by this generator with these settings, or a new run."""
    path = os.path.join(work, "manifest.json")
    if os.path.exists(path):
        manifest = json.load(open(path, encoding="utf-8"))
        source = hashlib.sha256(open(make_variety.__file__, "rb").read()).hexdigest()
        same = manifest["generator"] | {"sqlite": None} == {"seed": seed, "count": count, "huge": huge,
                                                            "source": source, "sqlite": None}
        if same and all(os.path.exists(os.path.join(work, d["file"])) for d in manifest["databases"]):
            return manifest
    return make_variety.generate(work, seed, count, huge)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    source = parser.add_mutually_exclusive_group(required=True)
    source.add_argument("--tool", help="the utils-inspect binary")
    source.add_argument("--reader", choices=["engine"], help="the engine in the tool's place")
    parser.add_argument("--work", required=True, help="folder of the databases")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=32)
    parser.add_argument("--huge", action="store_true", help="also the database past 4 GiB")
    parser.add_argument("--jobs", type=int, default=2, help="tool runs at once")
    args = parser.parse_args()
    manifest = load_manifest(args.work, args.seed, args.count, args.huge)

    views, tasks = {}, []
    for db in manifest["databases"]:
        path = os.path.abspath(os.path.join(args.work, db["file"]))
        damage = db.get("damage")
        original = os.path.join(args.work, damage["original"]) if damage else None
        skip = {t["name"] for t in db["tables"] if t.get("compareRows") is False}
        views[path] = engine_view(path, original, skip)
        view = views[path][0]
        for with_indexes in (False, True):
            tasks.append((check_tables, db["file"], path, view, with_indexes, damage))
        tasks += [(check_rows, db["file"], path, t, fmt) for t in view.tables if t.rows is not None
                  for fmt in ("json", "csv")]
    damaged = {os.path.abspath(os.path.join(args.work, d["file"])): d["damage"]["kind"]
               for d in manifest["databases"] if d.get("damage")}
    run = EngineReader(views, damaged) if args.reader else tool_reader(args.tool)

    def do(task):
        result = Result()
        task[0](run, *task[1:], result)
        return task, result

    with concurrent.futures.ThreadPoolExecutor(1 if args.reader else args.jobs) as pool:
        results = list(pool.map(do, tasks))

    mismatches = [m for _, r in results for m in r.mismatches]
    c = manifest["counts"]
    print(f"{'engine' if args.reader else args.tool}: {c['databases']} databases ({c['damaged']} damaged "
          f"copies), {sum(len(v.tables) for v, _ in views.values())} tables, "
          f"{sum(r.rows for _, r in results)} rows and {sum(r.values for _, r in results)} values "
          f"and table-list entries compared, in JSON and again in CSV; {len(tasks)} tool runs")
    refused = sorted(d["file"] for d in manifest["databases"] if d.get("damage") and not d["damage"]["engineReads"])
    if refused:
        print(f"the engine refuses {', '.join(refused)}: compared with the original")
    if args.reader:
        missed = planted_faults()
        print("planted faults: " + ("all caught" if not missed else "MISSED " + "; ".join(missed)))
        mismatches += [("planted fault missed", m, "", "") for m in missed]
    if not mismatches:
        print("no mismatches")
        return 0
    report(mismatches, results, manifest)
    return 1


def report(mismatches, results, manifest):
    """Mismatches by kind, tables failing by what they cover, and the first mismatch of each kind
    followed by the next ones, 20 in all."""
    kinds = {}
    for m in mismatches:
        kinds[m[0]] = kinds.get(m[0], 0) + 1
    print(f"{len(mismatches)} mismatches: " + ", ".join(f"{k} {v}" for k, v in sorted(kinds.items())))
    about = {(d["file"], t["name"]): t["kinds"] + [f"pageSize={d['pageSize']}", f"encoding={d['encoding']}",
                                                   f"reservedBytes={d['reservedBytes']}",
                                                   f"autoVacuum={d['autoVacuum']}"]
             + ([f"damage={d['damage']['kind']}"] if d.get("damage") else [])
             for d in manifest["databases"] for t in d["tables"]}
    groups, failing = {"json": {}, "csv": {}}, set()
    for task, r in results:
        if task[0] is check_rows:
            key = (task[1], task[3].name)
            failing |= {key} if r.mismatches else set()
            for g in about.get(key, []):
                groups[task[4]].setdefault(g, [0, 0])[0] += bool(r.mismatches)
                groups[task[4]][g][1] += 1
    print(f"tables with a row mismatch: {len(failing)} in {len({f for f, _ in failing})} databases")
    for fmt, by in groups.items():
        print(f"  in rows --{fmt}, by kind (failing/read): "
              + (", ".join(f"{g} {f}/{n}" for g, (f, n) in sorted(by.items()) if f) or "none"))
    firsts, seen = [], set()
    for m in mismatches:
        if m[0] not in seen:
            seen.add(m[0])
            firsts.append(m)
    shown = (firsts + [m for m in mismatches if m not in firsts])[:20]
    for what, where, expected, got in shown:
        print(f"  {what}: {where}" + (f"\n      expected {expected}\n      got      {got}" if expected or got else ""))


if __name__ == "__main__":
    sys.exit(main())
