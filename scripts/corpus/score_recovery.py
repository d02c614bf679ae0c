#!/usr/bin/env python3
"""Scores utils-inspect's recovery of deleted rows on the databases of make_recovery.py.

    score_recovery.py --tool PATH_TO_utils-inspect --work DIR [--seed N] [--count N]
                      [--mode auto|one-pass|per-table] [--all] [--jobs N] [--json FILE]
                      [--min-recall R] [--min-precision P]
    score_recovery.py --reader truth --work DIR [--seed N] [--count N]

Makes the databases with make_recovery.py into DIR (or reuses them when DIR holds a run of the
same generator, seed and count), then for every database:
  - one-pass: `recover --json -- DB` (every table, live and dropped, each record naming its
    "table", with "dropped" and "ambiguous" where they apply);
  - per-table: `recover --json -- DB NAME` for every table name of the truth, live or dropped (a
    record without "table" belongs to NAME, and to the dropped table when NAME is not live);
  - auto (the default): one-pass, or per-table when the tool refuses `recover` without a table;
  - `tables --dropped --json -- DB`: the dropped tables whose schema was recovered.

Every printed record (held-back ones too with --all, which also passes --all to the tool) is
classified against the truth of its database: an exact hit (every stored column equal, type
included; the INTEGER PRIMARY KEY may read null; a table whose only column is that key needs the
rowid; a column added after the row was written may read null instead of its default), a duplicate of an earlier hit, a partial hit (no value contradicts the row, lost values
read null, text and blobs may be cut short, and at least half of the row's non-null values are
there, whole or cut short), a deleted row of another table of the database (wrong table), a live row, or false.
Records filed under sqlite_master and the other sqlite_ tables are counted apart.

Prints, per tag (the generator's case:, shape:, edit:, tx:, rowid:, payload:, page:, encoding:,
vacuum: and reserved: groups) and in total: deleted rows, surviving rows, exact recall on the
surviving rows and on all, exact-or-partial recall on all, records, precision (real deleted rows of
the right table, duplicates included, over records) and records of the wrong table; precision is
per table, so row-level groups (edit, tx, rowid, payload) have none. Then the dropped tables: schema
recovered (name and CREATE statement exact, root page) and false entries. Exits 1 when a total
falls below --min-recall (exact recall on surviving rows) or --min-precision.

--reader truth puts a perfect reader in the tool's place, which prints every surviving row from
the truth: it must score 100%, and faults planted in known records must be caught, which proves
the truth and the scoring.
"""
import argparse
import base64
import binascii
import concurrent.futures
import hashlib
import json
import os
import re
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import make_recovery  # noqa: E402

ROW_GROUPS = ("edit:", "tx:", "rowid:", "payload:")


# The truth -------------------------------------------------------------------------------------
def truth_value(v):
    if isinstance(v, dict):
        return base64.b64decode(v["blob"]) if "blob" in v else float(v["real"])
    return v


def key(v):
    """The comparable form of a truth value."""
    if v is None:
        return ("n",)
    if isinstance(v, bytes):
        return ("b", v)
    if isinstance(v, float):
        return ("f", repr(v))
    return ("s", v) if isinstance(v, str) else ("i", v)


def keys(v):
    """The comparable forms a printed value may stand for: a string is text, or a blob in base64."""
    if v is None or isinstance(v, bool):
        return [("n",)] if v is None else []
    if isinstance(v, (int, float)):
        return [key(v)]
    if not isinstance(v, str):
        return []
    out = [("s", v)]
    try:
        out.append(("b", base64.b64decode(v, validate=True)))
    except (binascii.Error, ValueError):
        pass
    return out


def is_int(v, n):
    return isinstance(v, int) and not isinstance(v, bool) and v == n


def agreement(t, got):
    """How a printed value stands to the truth's: "same", "lost" (null), "cut" (text or blob cut
    short) or None (it contradicts it)."""
    ks = keys(got)
    if key(t) in ks:
        return "same"
    if got is None:
        return "lost"
    if any(k[0] in "sb" and isinstance(t, str if k[0] == "s" else bytes) and len(k[1]) < len(t)
           and t.startswith(k[1]) for k in ks):
        return "cut"
    return None


class TableTruth:
    def __init__(self, t):
        self.name, self.dropped, self.tags = t["name"], t["dropped"], t["tags"]
        self.ncols, self.alias = len(t["columns"]), t["rowidColumn"]
        self.compared = [c for c in range(self.ncols) if c not in t["virtualColumns"]]
        self.informative = [c for c in self.compared if c != self.alias]
        self.rows = [dict(r, values=[truth_value(v) for v in r["values"]]) for r in t["deleted"]]
        for r in self.rows:  # columns added after the row was written: their default, or null
            r["absent"] = set(self.compared[r["fields"]:])
        self.live = [[truth_value(v) for v in r] for r in t["live"]]
        self.postings, self.blank = {}, []
        for n, r in enumerate(self.rows):
            filled = [c for c in self.informative if r["values"][c] is not None]
            for c in filled:
                self.postings.setdefault((c, key(r["values"][c])), []).append(n)
            if not filled:
                self.blank.append(n)

    def candidates(self, values):
        lists = [sum((self.postings.get((c, k), []) for k in keys(values[c])), [])
                 for c in self.informative if c < len(values) and values[c] is not None]
        return min(lists, key=len) if lists else self.blank

    def exact(self, values, rowid):
        """Indexes of the deleted rows the record equals."""
        if len(values) != self.ncols:
            return []
        aliased = None if self.alias is None else values[self.alias]
        out = []
        for n in self.candidates(values):
            r = self.rows[n]
            if all(key(r["values"][c]) in keys(values[c]) or c in r["absent"] and values[c] is None
                   for c in self.informative) and \
                    (aliased is None or is_int(aliased, r["rowid"])) and \
                    (self.informative or is_int(rowid, r["rowid"]) or is_int(aliased, r["rowid"])):
                out.append(n)
        return out

    def partial(self, values):
        """Indexes of the deleted rows the record may be a damaged copy of."""
        out = []
        for n in dict.fromkeys(sum((self.postings.get((c, k), []) for c in self.informative
                                    if c < len(values) for k in keys(values[c])), [])):
            truth = self.rows[n]["values"]
            seen = [agreement(truth[c], values[c] if c < len(values) else None) for c in self.informative]
            agree = sum(a == "cut" or a == "same" and truth[c] is not None for c, a in zip(self.informative, seen))
            if None not in seen and 2 * agree >= sum(truth[c] is not None for c in self.informative):
                out.append(n)
        return out

    def is_live(self, values):
        return len(values) == self.ncols and any(
            all(key(v[c]) in keys(values[c]) for c in self.informative) for v in self.live)


def load_truth(work, seed, count):
    """The truth of a run in work made by this generator with these settings, or a new run."""
    path = os.path.join(work, "truth.json")
    source = hashlib.sha256(open(make_recovery.__file__, "rb").read()
                            + open(make_recovery.mv.__file__, "rb").read()).hexdigest()
    if os.path.exists(path):
        truth = json.load(open(path, encoding="utf-8"))
        g = truth["generator"]
        if (g["seed"], g["count"], g["source"]) == (seed, count, source) and \
                all(os.path.exists(os.path.join(work, d["file"])) for d in truth["databases"]):
            return truth
    make_recovery.generate(work, seed, count)
    return json.load(open(path, encoding="utf-8"))


# Readers -------------------------------------------------------------------------------------
def tool_reader(path):
    def run(argv):
        try:
            p = subprocess.run([path] + argv, capture_output=True, timeout=600)
        except subprocess.TimeoutExpired:
            return "timeout", "", "still running after 600 s"
        return p.returncode, p.stdout.decode("utf-8", "replace"), p.stderr.decode("utf-8", "replace")
    return run


def contract_value(v):
    """A value as the output contract writes it."""
    if isinstance(v, dict):
        if "blob" in v:
            return json.dumps(v["blob"])
        return "9.0e999" if v["real"] == "Infinity" else "-9.0e999"
    return json.dumps(v, ensure_ascii=False)


class TruthReader:
    """A perfect reader: prints every surviving deleted row from the truth, the alias column null
    in every other record, and lists every dropped table."""

    def __init__(self, truth, work):
        self.dbs = {os.path.join(work, d["file"]): d for d in truth["databases"]}

    def __call__(self, argv):
        cut = argv.index("--")
        db, name = self.dbs[argv[cut + 1]], (argv[cut + 2:] or [None])[0]
        if argv[0] == "tables":
            return 0, json.dumps([{"name": t["name"], "type": "table", "rootPage": t["rootPage"], "sql": t["sql"],
                                   "dropped": True} for t in db["tables"] if t["dropped"]]), ""
        out = []
        for t in db["tables"]:
            if name is not None and t["name"] != name:
                continue
            for n, r in enumerate(t["deleted"]):
                if not r["survives"]:
                    continue
                values = list(r["values"])
                if t["rowidColumn"] is not None and n % 2:
                    values[t["rowidColumn"]] = None
                out.append('{"table":%s,"dropped":%s,"page":2,"offset":0,"region":"gap","verdict":"recovered",'
                           '"reasons":[],"rowid":%s,"overflow":%s,"values":[%s]}' % (
                               json.dumps(t["name"]), json.dumps(t["dropped"]), json.dumps(r["rowid"]),
                               json.dumps(r["overflow"]), ",".join(map(contract_value, values))))
        return 0, "[\n" + ",\n".join(out) + "\n]\n", ""


def parse(out, errors):
    try:
        result = json.loads(out)
        if isinstance(result, list) and all(isinstance(r, dict) for r in result):
            return result
    except ValueError:
        pass
    errors.append("output that is not a JSON array of objects")
    return []


def complaint(what, code, err, path):
    """A refusal, worded the same for every database and table: the last line the reader wrote,
    with the database's path and quoted names left out."""
    last = ([line for line in err.splitlines() if line.strip()] or [""])[-1].replace(path, "DB")
    return f"{what}: exit {code}: " + re.sub(r"'[^']*'", "'...'", last)[:150]


def read_database(run, work, db, mode, show_all):
    """The records and dropped-table entries the reader prints for one database, and its errors."""
    path = os.path.join(work, db["file"])
    extra = ["--all"] if show_all else []
    records, errors = [], []
    if mode in ("auto", "one-pass"):
        code, out, err = run(["recover", "--json"] + extra + ["--", path])
        if code == 0:
            records = [(r, r.get("table"), bool(r.get("dropped"))) for r in parse(out, errors)]
            mode = "one-pass"
        else:
            errors.append(complaint("recover DB", code, err, path))
            mode = "per-table" if mode == "auto" else mode
    if mode == "per-table":
        live = {t["name"] for t in db["tables"] if not t["dropped"]}
        for name in dict.fromkeys(t["name"] for t in db["tables"]):
            code, out, err = run(["recover", "--json"] + extra + ["--", path, name])
            if code != 0:
                errors.append(complaint(f"recover DB TABLE ({'live' if name in live else 'dropped'})", code,
                                        err, path))
                continue
            records += [(r, r.get("table", name), bool(r.get("dropped", name not in live)))
                        for r in parse(out, errors)]
    code, out, err = run(["tables", "--dropped", "--json", "--", path])
    dropped = parse(out, errors) if code == 0 else None
    if code != 0:
        errors.append(complaint("tables --dropped", code, err, path))
    return mode, records, dropped, errors


# Scoring -------------------------------------------------------------------------------------
CLASSES = ("exact", "partial", "dup", "wrong-table", "live", "false")


def score_database(db, records, dropped, show_all):
    """Per-row statuses, per-record classes and the dropped-table figures of one database."""
    tables = [TableTruth(t) for t in db["tables"]]
    by_key = {(t.name, t.dropped): t for t in tables}
    status = {(id(t), n): None for t in tables for n in range(len(t.rows))}
    out = {"records": [], "system": 0, "ambiguous": 0, "wrongRowid": 0, "otherLength": 0}
    for rec, name, was_dropped in records:
        if rec.get("verdict") == "held" and not show_all:
            continue
        if isinstance(name, str) and name.lower().startswith("sqlite_"):
            out["system"] += 1
            continue
        out["ambiguous"] += bool(rec.get("ambiguous"))
        values, rowid = rec.get("values") or [], rec.get("rowid")
        filed = by_key.get((name, was_dropped))
        out["otherLength"] += filed is not None and len(values) != filed.ncols
        cls, hit = "false", None
        found = filed.exact(values, rowid) if filed else []
        if found:
            fresh = [n for n in found if status[(id(filed), n)] != "exact"]
            hit, cls = (fresh or found)[0], "exact" if fresh else "dup"
            status[(id(filed), hit)] = "exact"
            r = filed.rows[hit]
            out["wrongRowid"] += rowid is not None and r["rowid"] is not None and not is_int(rowid, r["rowid"])
        elif any(t.exact(values, rowid) for t in tables if t is not filed):
            cls = "wrong-table"
        elif filed and (found := filed.partial(values)):
            fresh = [n for n in found if status[(id(filed), n)] is None]
            cls = "partial" if fresh else "dup"
            for n in fresh[:1]:
                status[(id(filed), n)] = "partial"
        elif filed and filed.is_live(values):
            cls = "live"
        out["records"].append((filed, cls))
    out["rows"] = [(t, r, status[(id(t), n)]) for t in tables for n, r in enumerate(t.rows)]
    out["dropped"] = score_dropped(db, dropped)
    return out


def score_dropped(db, entries):
    truth = [t for t in db["tables"] if t["dropped"]]
    figures = {"tables": len(truth), "schemaSurvives": sum(t["schemaSurvives"] for t in truth),
               "exact": 0, "exactSurviving": 0, "nameOnly": 0, "rootPage": 0, "false": 0, "former": 0,
               "listed": entries is not None}
    entries = [e for e in entries or [] if e.get("type", "table") == "table"]
    for t in truth:
        same = [e for e in entries if e.get("name") == t["name"]]
        exact = [e for e in same if e.get("sql") == t["sql"]]
        figures["exact"] += bool(exact)
        figures["exactSurviving"] += bool(exact) and t["schemaSurvives"]
        figures["nameOnly"] += bool(same) and not exact
        figures["rootPage"] += any(e.get("rootPage") == t["rootPage"] for e in exact)
    known = {(t["name"], t["sql"]) for t in truth}
    former = {s for t in db["tables"] for s in t["formerSql"]} | {t["sql"] for t in db["tables"] if not t["dropped"]}
    for e in entries:
        if (e.get("name"), e.get("sql")) not in known:
            figures["former" if e.get("sql") in former else "false"] += 1
    return figures


class Tally:
    def __init__(self):
        self.rows = dict.fromkeys(("deleted", "surviving", "exactRows", "exactSurviving", "foundRows"), 0)
        self.recs = dict.fromkeys(("records",) + CLASSES, 0)

    def row(self, r, status):
        self.rows["deleted"] += 1
        self.rows["surviving"] += r["survives"]
        self.rows["exactRows"] += status == "exact"
        self.rows["exactSurviving"] += status == "exact" and r["survives"]
        self.rows["foundRows"] += status is not None

    def record(self, cls):
        self.recs["records"] += 1
        self.recs[cls] += 1

    def figures(self, row_level):
        r, c = self.rows, self.recs
        ratio = lambda a, b: a / b if b else None
        real = c["exact"] + c["partial"] + c["dup"]
        return {**r, **c, "recallSurviving": ratio(r["exactSurviving"], r["surviving"]),
                "recallAll": ratio(r["exactRows"], r["deleted"]), "partialRecall": ratio(r["foundRows"], r["deleted"]),
                "precision": None if row_level else ratio(real, c["records"])}


def tally(results):
    by, total = {}, Tally()
    for res in results:
        for t, r, status in res["rows"]:
            total.row(r, status)
            for tag in r["tags"]:
                by.setdefault(tag, Tally()).row(r, status)
        for filed, cls in res["records"]:
            total.record(cls)
            for tag in filed.tags if filed else []:
                by.setdefault(tag, Tally()).record(cls)
    return {tag: t.figures(tag.startswith(ROW_GROUPS)) for tag, t in sorted(by.items())}, total.figures(False)


def pct(x):
    return "-" if x is None else f"{100 * x:.1f}%"


def print_report(by, total, results, seconds):
    head = ("group", "tag", "deleted", "surv", "exact", "ex/surv", "ex/all", "part/all", "records", "precision",
            "wrong-tbl")
    line = "{:<9} {:<28} {:>7} {:>6} {:>6} {:>8} {:>7} {:>8} {:>8} {:>9} {:>9}"
    print(line.format(*head))
    for tag, f in list(by.items()) + [("total:", total)]:
        group, _, name = tag.partition(":")
        print(line.format(group, name[:28], f["deleted"], f["surviving"], f["exactRows"], pct(f["recallSurviving"]),
                          pct(f["recallAll"]), pct(f["partialRecall"]), f["records"], pct(f["precision"]),
                          f["wrong-table"]))
    print("records: " + ", ".join(f"{c} {total[c]}" for c in CLASSES)
          + f"; wrong rowid {sum(r['wrongRowid'] for r in results)}, ambiguous {sum(r['ambiguous'] for r in results)}"
          f", values not one per column {sum(r['otherLength'] for r in results)}"
          f", filed under sqlite_ tables {sum(r['system'] for r in results)} (not scored)")
    d = {k: sum(r["dropped"][k] for r in results) for k in results[0]["dropped"]} if results else {}
    if d:
        print(f"dropped tables: {d['tables']} (schema row survives for {d['schemaSurvives']}); "
              + (f"schema recovered exact {d['exact']} ({d['exactSurviving']} of those that survive; root page "
                 f"right {d['rootPage']}), by name only "
                 f"{d['nameOnly']}; false entries {d['false']}, earlier schemas of live tables {d['former']}"
                 if d["listed"] == len(results) else f"tables --dropped answered for {d['listed']} of "
                 f"{len(results)} databases; schema recovered exact {d['exact']}"))
    print(f"scored in {seconds:.1f} s")


# Proof of the scoring ----------------------------------------------------------------------------
def planted_faults():
    """Scores known records against a small truth; returns the faults the scoring missed."""
    tags = ["case:x", "shape:t"]
    row = lambda rowid, values, survives=True, fields=None: {
        "rowid": rowid, "values": values, "survives": survives, "overflow": False, "tags": tags + ["edit:delete"],
        "fields": fields or len(values)}
    table = lambda name, dropped, cols, alias, deleted, live: {
        "name": name, "dropped": dropped, "sql": f"CREATE TABLE {name}(...)", "rootPage": 2, "columns": cols,
        "rowidColumn": alias, "virtualColumns": [], "tags": tags, "formerSql": [], "live": live,
        "deleted": deleted, "schemaSurvives": dropped}
    blob = {"blob": base64.b64encode(b"\x00\x01").decode()}
    db = {"tables": [
        table("t", False, ["id", "name", "n", "data"], None,
              [row(1, [1, "alpha", 2.5, blob]), row(2, [2, "beta", None, None]), row(3, [3, "gamma", 7, None]),
               row(4, [4, "delta", -0.0, None], False)], [[9, "live", 1, None]]),
        table("t", True, ["k", "v"], 0, [row(70, [70, "old"])], []),
        table("only", False, ["id"], 0, [row(300, [300]), row(5, [5])], []),
        table("added", False, ["a", "b", "c"], None, [row(10, [1, "x", "dflt"], fields=2)], []),
    ]}
    b64 = base64.b64encode(b"\x00\x01").decode()
    rec = lambda name, values, rowid=None, dropped=False: ({"values": values, "rowid": rowid}, name, dropped)
    records = [
        rec("t", [1, "alpha", 2.5, b64], 1),             # exact
        rec("t", [1, "alpha", 2.5, b64], 1),             # duplicate
        rec("t", [2, "beta", None, None], 99),           # exact, wrong rowid
        rec("t", [3, "gam", None, None]),                # partial: text cut short, a value lost
        rec("t", [3, "gamma", 7.0, None]),               # false: 7.0 is not the integer 7
        rec("t", [4, "delta", 0.0, None]),               # false: 0.0 is not -0.0
        rec("t", [70, "old"], 70),                       # wrong table: the dropped t's row
        rec("t", [None, "old"], None, True),             # exact (dropped t, alias lost)
        rec("t", [9, "live", 1, None]),                  # live
        rec("only", [None], None), rec("only", [None], 300), rec("only", [5], None),  # false, exact, exact
        rec("added", [1, "x", None]), rec("added", [1, "x", "dflt"]),  # exact (c added later), duplicate
        rec("sqlite_master", ["table", "t"]),            # not scored
    ]
    res = score_database(db, records, [{"name": "t", "type": "table", "sql": "CREATE TABLE t(...)", "rootPage": 2},
                                       {"name": "u", "sql": "CREATE TABLE u(a)"}], False)
    got = [cls for _, cls in res["records"]]
    want = ["exact", "dup", "exact", "partial", "false", "false", "wrong-table", "exact", "live", "false", "exact",
            "exact", "exact", "dup"]
    missed = [f"record {n}: {g} instead of {w}" for n, (g, w) in enumerate(zip(got, want)) if g != w]
    missed += [] if len(got) == len(want) else [f"{len(got)} records scored instead of {len(want)}"]
    by, total = tally([res])
    checks = {"wrong rowid": (res["wrongRowid"], 1), "sqlite_ records": (res["system"], 1),
              "exact rows": (total["exactRows"], 6), "surviving rows": (total["surviving"], 7),
              "rows found": (total["foundRows"], 7), "precision": (total["precision"], 9 / 14),
              "dropped exact": (res["dropped"]["exact"], 1), "dropped false": (res["dropped"]["false"], 1),
              "row-level precision": (by["edit:delete"]["precision"], None)}
    missed += [f"{k}: {g} instead of {w}" for k, (g, w) in checks.items() if g != w]
    return missed


# The run ---------------------------------------------------------------------------------------------
def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    source = parser.add_mutually_exclusive_group(required=True)
    source.add_argument("--tool", help="the utils-inspect binary")
    source.add_argument("--reader", choices=["truth"], help="a perfect reader in the tool's place")
    parser.add_argument("--work", required=True, help="folder of the databases")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=2 * len(make_recovery.CASES))
    parser.add_argument("--mode", choices=["auto", "one-pass", "per-table"], default="auto")
    parser.add_argument("--all", action="store_true", help="also score the records the tool holds back")
    parser.add_argument("--jobs", type=int, default=2, help="databases read at once")
    parser.add_argument("--json", help="also write the figures to this file")
    parser.add_argument("--min-recall", type=float, help="least exact recall on surviving rows, 0 to 1")
    parser.add_argument("--min-precision", type=float, help="least precision, 0 to 1")
    args = parser.parse_args()
    truth = load_truth(args.work, args.seed, args.count)
    start = time.monotonic()
    run = TruthReader(truth, args.work) if args.reader else tool_reader(args.tool)
    dbs = truth["databases"]
    first = read_database(run, args.work, dbs[0], args.mode, args.all)
    mode = first[0]
    with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
        reads = [first] + list(pool.map(lambda d: read_database(run, args.work, d, mode, args.all), dbs[1:]))
    results = [score_database(d, recs, dropped, args.all) for d, (_, recs, dropped, _) in zip(dbs, reads)]
    by, total = tally(results)
    errors = {}
    for _, _, _, errs in reads:
        for e in errs:
            errors[e] = errors.get(e, 0) + 1
    print(f"{'truth' if args.reader else args.tool}: {len(dbs)} databases of {args.work}, mode {mode}"
          + (", held-back records included" if args.all else ""))
    for e, n in sorted(errors.items()):
        print(f"  {n} x {e}")
    print_report(by, total, results, time.monotonic() - start)
    if args.json:
        with open(args.json, "w", encoding="utf-8") as f:
            json.dump({"mode": mode, "total": total, "byTag": by, "errors": errors}, f, indent=1)
    failed = []
    if args.reader:
        if total["recallSurviving"] != 1 or total["precision"] != 1 or \
                sum(r["dropped"]["exact"] for r in results) != sum(r["dropped"]["tables"] for r in results):
            failed.append("the perfect reader does not score 100%")
        missed = planted_faults()
        print("planted faults: " + ("all caught" if not missed else "MISSED " + "; ".join(missed)))
        failed += missed
    if args.min_recall is not None and (total["recallSurviving"] or 0) < args.min_recall:
        failed.append(f"exact recall on surviving rows {pct(total['recallSurviving'])} < {pct(args.min_recall)}")
    if args.min_precision is not None and total["precision"] is not None and total["precision"] < args.min_precision:
        failed.append(f"precision {pct(total['precision'])} < {pct(args.min_precision)}")
    for f in failed:
        print("FAILED: " + f)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
