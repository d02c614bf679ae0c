#!/usr/bin/env python3
"""Scores a run of `utils-inspect recover DB TABLE --json` against a corpus's ground truth.

    score_recovery.py TRUTH.json RESULT.json [--table message] [--with-header] [--all] [--json]
    score_recovery.py --self-check

TRUTH.json comes from make_corpus.py (recovery or wal): columns, types, rowid_column,
deleted{table: rows}, deleted_overflow, and optionally live{table: rows} and
superseded{table: rows} (earlier versions of edited rows).

RESULT.json is the JSON array the tool prints, in either shape:
  records: objects with "values" in declared column order, "rowid", "page", "offset",
    "region", "verdict" and optionally "reasons". A verdict of "held" means held back: such
    records are not counted as printed unless --all is given.
  raw (--raw, the classic scan): objects {"source", "values"} with the values in pattern order,
    after a leading rowid when the scan ran with --with-header (pass it here too). A NULL reads
    as 0. Values one short of the column count are taken as a pattern that leaves out the
    INTEGER PRIMARY KEY column (freeblock cells lose it).

A record is an exact hit when every column equals the deleted row: text, integers and floats
exactly, blobs by bytes; the INTEGER PRIMARY KEY column (stored as NULL) may read null, 0 (raw
shape) or the true id; in the raw shape 0 also stands for any NULL. Each record is counted once:
the first hit of a deleted row, a duplicate of an earlier hit, a live row, an earlier version of
an edited row ("old"), or other. Recall = deleted rows hit / deleted rows; precision = first
hits / records. "wrong rowid" counts hits whose reported rowid is neither null/0 nor the true id.
"""
import argparse
import base64
import binascii
import itertools
import json
import sys

CATEGORIES = ("hits", "dup", "live", "old", "other")


def is_held(rec):
    return str(rec.get("verdict", "")).lower() == "held"


class Truth:
    def __init__(self, truth, table):
        if "columns" not in truth or "deleted" not in truth:
            sys.exit("score_recovery: the truth file has no rows to compare (a bench corpus lists deleted ids only)")
        if table not in truth["deleted"]:
            sys.exit(f"score_recovery: the truth file has no deleted rows of '{table}'")
        self.columns = truth["columns"][table]
        types = truth.get("types", {}).get(table, ["" for _ in self.columns])
        self.blobs = {i for i, t in enumerate(types) if t.upper() == "BLOB"}
        key = truth.get("rowid_column", {}).get(table)
        self.id_at = self.columns.index(key) if key in self.columns else None
        self.deleted = truth["deleted"][table]
        self.overflow = truth.get("deleted_overflow", {}).get(table, [False] * len(self.deleted))
        self.rows = {name: truth.get(name, {}).get(table, []) for name in ("live", "superseded")}
        self.rows["deleted"] = self.deleted
        self.index = {name: self._index(rows) for name, rows in self.rows.items()}

    def norm(self, v, i):
        if v is None:
            return None
        if isinstance(v, (int, float)):
            return ("n", v)
        if isinstance(v, str):
            if i in self.blobs:
                try:
                    return ("b", base64.b64decode(v + "=" * (-len(v) % 4), validate=True))  # padding optional
                except (binascii.Error, ValueError):
                    pass
            return ("s", v)
        return ("?", json.dumps(v, sort_keys=True))

    def key(self, values):
        return tuple(self.norm(v, i) for i, v in enumerate(values) if i != self.id_at)

    def _index(self, rows):
        index = {}
        for n, row in enumerate(rows):
            index.setdefault(self.key(row), []).append(n)
        return index

    def lookup(self, which, values, raw):
        """Indexes of the rows in `which` that the record equals."""
        ids = None if self.id_at is None else values[self.id_at]
        key = self.key(values)
        zeros = [i for i, v in enumerate(key) if raw and v == ("n", 0)][:12]
        found = []
        for choice in itertools.product((("n", 0), None), repeat=len(zeros)):
            k = list(key)
            for i, v in zip(zeros, choice):
                k[i] = v
            found += self.index[which].get(tuple(k), [])
        if self.id_at is None or ids is None or (raw and ids == 0):
            return found
        return [n for n in found if self.rows[which][n][self.id_at] == ids]


def records_of(result, truth, with_header):
    """(values aligned to the columns or None, rowid, raw?, source record) per record."""
    raw = bool(result) and "verdict" not in result[0] and "source" in result[0]
    ncols = len(truth.columns)
    out = []
    for rec in result:
        values, rowid = list(rec.get("values") or []), rec.get("rowid")
        if raw and with_header:
            rowid, values = (values[0] if values else None), values[1:]
        if raw and len(values) == ncols - 1 and truth.id_at == 0:
            values = [None] + values
        out.append((values if len(values) == ncols else None, rowid, raw, rec))
    return ("raw" if raw else "records" if result else "empty"), out


def classify(truth, records):
    """Category per record, the deleted row each hit found, and the count of wrong rowids."""
    seen, cats, rows, wrong = set(), [], [], 0
    for values, rowid, raw, _ in records:
        cat, row = "other", None
        if values is not None:
            found = truth.lookup("deleted", values, raw)
            if found:
                if rowid not in (None, 0) and truth.id_at is not None:
                    exact = [n for n in found if truth.deleted[n][truth.id_at] == rowid]
                    wrong += not exact
                    found = exact or found
                fresh = [n for n in found if n not in seen]
                row = (fresh or found)[0]
                cat = "hits" if fresh else "dup"
                seen.add(row)
            elif truth.lookup("live", values, raw):
                cat = "live"
            elif truth.lookup("superseded", values, raw):
                cat = "old"
        cats.append(cat)
        rows.append(row)
    return cats, rows, wrong


def figures(truth, records):
    cats, rows, wrong = classify(truth, records)
    hit = {r for r in rows if r is not None}
    deleted, over = len(truth.deleted), sum(1 for f in truth.overflow if f)
    f = {"records": len(records), **{c: cats.count(c) for c in CATEGORIES}}
    over_hits = sum(1 for r in hit if truth.overflow[r])
    f.update({
        "recall": len(hit) / deleted if deleted else None,
        "precision": f["hits"] / len(records) if records else None,
        "overflow_hits": over_hits,
        "overflow_recall": over_hits / over if over else None,
        "wrong_rowid": wrong,
    })
    regions = {}
    for (_, _, _, rec), c in zip(records, cats):
        reg = regions.setdefault(str(rec.get("region", rec.get("source", "?"))), dict.fromkeys(("records",) + CATEGORIES, 0))
        reg["records"] += 1
        reg[c] += 1
    f["regions"] = regions
    return f, hit


def score(truth_json, result, table="message", with_header=False, include_held=False):
    truth = Truth(truth_json, table)
    shape, records = records_of(result, truth, with_header)
    printed = [r for r in records if not is_held(r[3])]
    report = {"table": table, "shape": shape, "deleted": len(truth.deleted),
              "deleted_overflowing": sum(1 for f in truth.overflow if f),
              "held_back": len(records) - len(printed)}
    report["printed"], printed_hits = figures(truth, printed)
    if include_held:
        report["all"], _ = figures(truth, records)
        reasons = {}
        held = [r for r in records if is_held(r[3])]
        cats, rows, _ = classify(truth, held)
        for rec, c, row in zip(held, cats, rows):
            for reason in rec[3].get("reasons") or ["(none)"]:
                r = reasons.setdefault(str(reason), {"records": 0, "deleted": 0, "missed": set(), "live": 0, "other": 0})
                r["records"] += 1
                if row is not None:
                    r["deleted"] += 1
                    if row not in printed_hits:
                        r["missed"].add(row)
                else:
                    r["live" if c == "live" else "other"] += 1
        for r in reasons.values():
            r["missed"] = len(r["missed"])  # deleted rows found only among these held-back records
        report["held_reasons"] = dict(sorted(reasons.items()))
    return report


def pct(x):
    return "-" if x is None else f"{100 * x:.2f}%"


def print_table(rep):
    print(f"table {rep['table']}: {rep['deleted']} deleted rows ({rep['deleted_overflowing']} overflowing); "
          f"result shape: {rep['shape']}; {rep['held_back']} records held back")
    head = ("scope", "records", "hits", "recall", "precision", "live", "dup", "old", "other", "ovf hits",
            "ovf recall", "wrong rowid")
    print("{:<8} {:>8} {:>7} {:>8} {:>9} {:>6} {:>6} {:>5} {:>6} {:>8} {:>10} {:>11}".format(*head))
    for scope in ("printed", "all"):
        if scope in rep:
            f = rep[scope]
            print("{:<8} {:>8} {:>7} {:>8} {:>9} {:>6} {:>6} {:>5} {:>6} {:>8} {:>10} {:>11}".format(
                scope, f["records"], f["hits"], pct(f["recall"]), pct(f["precision"]), f["live"], f["dup"],
                f["old"], f["other"], f["overflow_hits"], pct(f["overflow_recall"]), f["wrong_rowid"]))
    print("\nprinted records by region:")
    print("  {:<34} {:>8} {:>7} {:>6} {:>6} {:>5} {:>6}".format("region", "records", *CATEGORIES))
    for name, r in sorted(rep["printed"]["regions"].items()):
        print("  {:<34} {:>8} {:>7} {:>6} {:>6} {:>5} {:>6}".format(name, r["records"], *(r[c] for c in CATEGORIES)))
    if "held_reasons" in rep:
        print("\nheld back by reason (a record counts under each of its reasons; missed = deleted rows "
              "no printed record found):")
        print("  {:<34} {:>8} {:>8} {:>7} {:>6} {:>6}".format("reason", "records", "deleted", "missed", "live", "other"))
        for name, r in rep["held_reasons"].items():
            print("  {:<34} {:>8} {:>8} {:>7} {:>6} {:>6}".format(
                name, r["records"], r["deleted"], r["missed"], r["live"], r["other"]))


def self_check():
    b = base64.b64encode(b"xy").decode()
    truth = {"columns": {"t": ["id", "name", "n", "data"]}, "types": {"t": ["INTEGER", "TEXT", "INTEGER", "BLOB"]},
             "rowid_column": {"t": "id"},
             "deleted": {"t": [[1, "a", 5, b], [2, None, 0, None], [3, "long", 7, None]]},
             "deleted_overflow": {"t": [False, False, True]},
             "live": {"t": [[4, "d", 1, None]]}, "superseded": {"t": [[5, "old", 2, None]]}}

    def rec(values, verdict="ok", rowid=None, reasons=None, region="gap"):
        return {"values": values, "rowid": rowid, "page": 2, "offset": 100, "region": region, "verdict": verdict,
                **({"reasons": reasons} if reasons else {})}

    new = [rec([None, "a", 5, "eHk"]), rec([1, "a", 5, b]), rec([None, "a", 5, b], "held", reasons=["overflow-unread"]), rec([None, "d", 1, None]),
           rec([None, None, 0, None], rowid=9, region="freeblock"),
           rec([None, "long", 7, None], "held", reasons=["overflow-unread"]),
           rec([None, "zz", 0, None]), rec([None, "old", 2, None]), rec([None, 0, 0, None]),
           rec([2, "a", 5, b])]
    r = score(truth, new, "t", include_held=True)
    p, a = r["printed"], r["all"]
    assert (p["records"], p["hits"], p["dup"], p["live"], p["old"], p["other"]) == (8, 2, 1, 1, 1, 3), p
    assert abs(p["recall"] - 2 / 3) < 1e-9 and p["precision"] == 2 / 8 and p["wrong_rowid"] == 1, p
    assert p["overflow_recall"] == 0 and p["regions"]["freeblock"]["hits"] == 1, p
    assert (a["records"], a["hits"], a["recall"], a["overflow_hits"]) == (10, 3, 1, 1), a
    assert r["held_back"] == 2 and r["held_reasons"]["overflow-unread"] == \
        {"records": 2, "deleted": 2, "missed": 1, "live": 0, "other": 0}, r
    assert "all" not in score(truth, new, "t")

    raw = [{"source": "t (gaps)", "values": v} for v in
           ([1, 0, "a", 5, b], [2, 0, 0, 0, 0], [0, 0, "d", 1, 0], [7, 0, "long", 8, 0], [9, 1])]
    assert r["shape"] == "records"
    p = score(truth, raw, "t", with_header=True)["printed"]
    assert (p["hits"], p["live"], p["other"]) == (2, 1, 2), p
    freeblocks = [{"source": "t", "values": v} for v in (["a", 5, b], ["long", 7, 0], ["long", 7, 0])]
    r = score(truth, freeblocks, "t")
    p = r["printed"]
    assert r["shape"] == "raw" and (p["hits"], p["dup"], p["overflow_recall"], p["precision"]) == (2, 1, 1, 2 / 3), p
    print("self-check passed")


def main():
    ap = argparse.ArgumentParser(description="Scores recovered records against a corpus's ground truth.")
    ap.add_argument("truth", nargs="?")
    ap.add_argument("result", nargs="?")
    ap.add_argument("--table", default="message")
    ap.add_argument("--with-header", action="store_true", help="raw shape: each record starts with its rowid")
    ap.add_argument("--all", action="store_true", help="also count held-back records; break them down by reason")
    ap.add_argument("--json", action="store_true", help="print the figures as one JSON object")
    ap.add_argument("--self-check", action="store_true")
    a = ap.parse_args()
    if a.self_check:
        return self_check()
    if not a.truth or not a.result:
        ap.error("TRUTH and RESULT are required")
    with open(a.truth, encoding="utf-8") as f:
        truth = json.load(f)
    with open(a.result, encoding="utf-8") as f:
        result = json.load(f)
    if not isinstance(result, list):
        sys.exit("score_recovery: RESULT must be a JSON array")
    rep = score(truth, result, a.table, a.with_header, a.all)
    if a.json:
        print(json.dumps(rep, indent=1, sort_keys=True))
    else:
        print_table(rep)


if __name__ == "__main__":
    main()
