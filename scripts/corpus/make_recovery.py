#!/usr/bin/env python3
"""Makes SQLite databases with deleted rows, edited the way real files are edited, and the ground
truth of every deleted row, for scoring the recovery of deleted records.

    make_recovery.py OUT_DIR [--seed N] [--count N]

Every database is written by the sqlite3 library with secure_delete off (Debian's library zeroes
freed bytes by default), then edited in transactions. Each database runs one scenario (its case),
in turn from CASES, so any len(CASES) databases in a row have every case:
  no-alias             tables `id INT, name TEXT, ...` with no rowid alias, rowids 1-127
  all-int              tables whose columns are all integers, with and without an alias
  rowid-only           a table whose only column is the rowid alias, small and large rowids
  large-rowid          explicit rowids of 8 to 62 bits
  wide                 20 to 40 columns
  large-tx             hundreds of rows deleted in one transaction, beside small ones
  insert-after-delete  new rows of every size inserted after deletes, over freed space
  update-move          updates that grow or shrink a row, or change its rowid (the row moves)
  drop                 DROP TABLE with and without rows (and its index), then new rows
  drop-recreate        DROP TABLE, then CREATE under the same name with another schema, new rows
  overflow-reuse       rows several pages long deleted, then new long rows reuse their pages
  without-rowid        WITHOUT ROWID tables (one key, two keys, long keys)
  incremental-vacuum   auto_vacuum incremental with PRAGMA incremental_vacuum(N) between deletes
  variety              tables of every shape of make_variety.py (STRICT, generated columns,
                       ADD COLUMN, renamed, odd names, composite keys...)
Deletes always come in random order, mostly in transactions of 1 to 5 rows. Page size (512 to
65,536), text encoding, auto_vacuum mode and reserved bytes rotate with the database's index as
in make_variety.py (auto_vacuum so that each case meets all three modes), whose names, schemas
and values are reused. Each database also drops the empty table `scratch` that made its file. All output is a pure function of seed and count (one
random.Random); two runs give the same bytes.

OUT_DIR/manifest.json: the generator, the counts (deleted rows and surviving ones by tag) and,
per database, its case, settings, tags and tables with their counts.

OUT_DIR/truth.json: {"generator": {...}, "databases": [DB...]}, where DB is
  {"file", "case", "pageSize", "reservedBytes", "encoding", "autoVacuum", "tags", "tables": [T...]}
and T, one per table b-tree that held rows (live tables, and dropped ones under the name they had;
a dropped-then-recreated name has two entries), is
  name, dropped (bool), sql (its CREATE statement as stored), rootPage (its root when it was
  dropped, or now), withoutRowid, strict, columns and types (PRAGMA table_xinfo order: the order
  of "values"), rowidColumn (index of the INTEGER PRIMARY KEY alias, or null), virtualColumns
  (indexes of VIRTUAL generated columns: not stored, not to compare), tags, formerSql (earlier
  CREATE statements of the table, before ALTER TABLE or RENAME: their schema rows are freed too),
  indexes ([{name, sql, rootPage}] dropped with a dropped table), schemaSurvives (dropped tables:
  whether its sqlite_master record, less its first two header bytes, is still in the file outside
  live cells), live (the rows left, as values lists), and deleted: [R...] with R
    rowid        the rowid (null for WITHOUT ROWID)
    values       as the engine returned them just before the edit, in column order; the alias
                 column holds the rowid. JSON: null, integers, floats (always with '.' or an
                 exponent), text as strings, blobs as {"blob": BASE64}, infinities as
                 {"real": "Infinity"} or {"real": "-Infinity"}
    edit         what removed it: "delete", "update" (an earlier version of a live row) or "drop"
    step, tx     the number of the edit in the database's history, and the rows it removed
    header       the record's header in hex, as the file held it before the edit (serial types
                 in the database's encoding; an integral value of REAL affinity stored as an
                 integer; the alias column stored as NULL)
    fields       the values the record holds: rows older than ADD COLUMN lack the columns added,
                 which the engine reads as their defaults
    payload      the record's length; overflow: whether part of it went to overflow pages
    survives     whether the row's bytes are still in the file outside live cells: the record
                 less its header-size varint and first serial type (which a freeblock header
                 overwrites; when that leaves nothing, its whole cell);
                 for an overflowing row, that part of its local bytes and every overflow page's
                 content (anywhere in the file)
    localSurvives  (overflowing rows) whether the local part survives
    tags         the database's, the table's and the row's tags, in groups: case:, shape:,
                 edit:, tx:, rowid:, payload:, page:, encoding:, vacuum:, reserved:
Every record was found in the file, as its cell, before the edit that removed it.
"""
import argparse
import base64
import bisect
import hashlib
import itertools
import json
import os
import random
import sqlite3
import struct
import sys

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import make_variety as mv  # noqa: E402

qid = mv.qid
CASES = ["no-alias", "all-int", "rowid-only", "large-rowid", "wide", "large-tx", "insert-after-delete",
         "update-move", "drop", "drop-recreate", "overflow-reuse", "without-rowid", "incremental-vacuum",
         "variety"]
# The shapes of make_variety.py whose making frees no rows (DROP COLUMN rewrites every row).
VARIETY_KINDS = [k for k in mv.TABLE_KINDS if k not in ("as_select", "dropped_column")]
TYPE_HINTS = {"INT": ["INT", "INTEGER", "BIGINT", "SMALLINT", "INT8", "TINYINT", "MEDIUMINT"],
              "TEXT": ["TEXT", "VARCHAR(255)", "CLOB", "NCHAR(55)"], "REAL": ["REAL", "DOUBLE", "FLOAT"],
              "BLOB": ["BLOB", ""], None: ["NUMERIC", "DECIMAL(10,5)", "BOOLEAN", "DATE", "", "STRINGY"]}
CODECS = {"UTF-8": "utf-8", "UTF-16le": "utf-16-le", "UTF-16be": "utf-16-be"}


# Records as SQLite writes them ------------------------------------------------------------------
def varint(v):
    v &= (1 << 64) - 1
    if v >> 56:
        out = [v & 0xFF]
        v >>= 8
        for _ in range(8):
            out.append(0x80 | (v & 0x7F))
            v >>= 7
        return bytes(reversed(out))
    out = [v & 0x7F]
    v >>= 7
    while v:
        out.append(0x80 | (v & 0x7F))
        v >>= 7
    return bytes(reversed(out))


def field(v, real_affinity, codec):
    """Serial type and stored bytes of one value."""
    if v is None:
        return 0, b""
    if isinstance(v, float):
        # REAL affinity keeps an integral value that fits in 6 bytes as an integer
        if not (real_affinity and v.is_integer() and -2**47 <= v < 2**47):
            return 7, struct.pack(">d", v)
        v = int(v)
    if isinstance(v, int):
        if v in (0, 1):
            return 8 + v, b""
        for serial, n in ((1, 1), (2, 2), (3, 3), (4, 4), (5, 6), (6, 8)):
            if -(1 << (8 * n - 1)) <= v < 1 << (8 * n - 1):
                return serial, v.to_bytes(n, "big", signed=True)
    if isinstance(v, str):
        b = v.encode(codec, "surrogatepass")
        return 13 + 2 * len(b), b
    return 12 + 2 * len(v), bytes(v)


def record(fields):
    """The record of (serial type, bytes) fields, and the length of its header."""
    types = b"".join(varint(t) for t, _ in fields)
    size = len(types) + 1
    while len(varint(size)) + len(types) != size:
        size += 1
    return varint(size) + types + b"".join(b for _, b in fields), size


def live_ranges(data, page_size, usable):
    """Sorted (start, end) byte ranges of the file that live cells occupy, overflow pages
    included: every b-tree reached from page 1's schema."""
    u16 = lambda o: struct.unpack(">H", data[o:o + 2])[0]
    u32 = lambda o: struct.unpack(">I", data[o:o + 4])[0]
    read_varint = lambda p: mv.read_varint(data, p)

    pages = len(data) // page_size
    con = sqlite3.connect(":memory:")  # only to read the schema's root pages from the bytes
    con.deserialize(bytes(data))
    roots = [1] + [r for (r,) in con.execute("SELECT rootpage FROM sqlite_master WHERE rootpage > 0")]
    con.close()
    ranges, seen, stack = [], set(), list(roots)
    while stack:
        page = stack.pop()
        if page in seen or not 1 <= page <= pages:
            continue
        seen.add(page)
        base = (page - 1) * page_size
        hdr = base + (100 if page == 1 else 0)
        kind, cells = data[hdr], u16(hdr + 3)
        interior = kind in (2, 5)
        if interior:
            stack.append(u32(hdr + 8))
        for k in range(cells):
            start = p = base + u16(hdr + (12 if interior else 8) + 2 * k)
            if interior:
                stack.append(u32(p))
                p += 4
            if kind == 5:
                ranges.append((start, read_varint(p)[1]))
                continue
            size, p = read_varint(p)
            if kind == 13:
                p = read_varint(p)[1]
            local = mv.local_size(size, usable, kind != 13)
            ranges.append((start, p + local + (4 if size > local else 0)))
            if size > local:
                nxt = u32(p + local)
                for _ in range(-(-(size - local) // (usable - 4))):
                    if not 1 <= nxt <= pages:
                        break
                    ranges.append(((nxt - 1) * page_size, nxt * page_size))
                    nxt = u32((nxt - 1) * page_size)
    return sorted(ranges)


def varint_end(buf, p):
    return mv.read_varint(buf, p)[1]


class FreeBytes:
    """A file's bytes, searched outside its live cells."""

    def __init__(self, data, page_size, usable):
        self.data = data
        ranges = live_ranges(data, page_size, usable)  # disjoint, so their ends are sorted too
        self.starts, self.ends = [s for s, _ in ranges], [e for _, e in ranges]

    def has(self, needle):
        pos = self.data.find(needle)
        while pos >= 0:
            i = bisect.bisect_left(self.starts, pos + len(needle)) - 1  # the last range starting before its end
            if i < 0 or self.ends[i] <= pos:
                return True
            pos = self.data.find(needle, pos + 1)
        return False


# The tables of a database -----------------------------------------------------------------------
class Table:
    """A table as the truth keeps it: columns, how its records are stored, and its deleted rows."""

    def __init__(self, name, cols, shape, rowids):
        self.name, self.cols, self.rowids = name, cols, rowids
        self.tags = [f"shape:{s}" for s in shape]
        self.dropped = False
        self.former, self.indexes, self.deleted, self.live = [], [], [], []
        self.min_stored = None  # stored columns before ALTER TABLE ADD COLUMN

    def load(self, con):
        """Reads the schema back from the engine: columns, alias, storage order, affinities."""
        self.sql, self.root = con.execute("SELECT sql, rootpage FROM sqlite_master WHERE type = 'table' "
                                          "AND name = ?", (self.name,)).fetchone()
        self.without_rowid, self.strict = map(bool, con.execute(
            "SELECT wr, strict FROM pragma_table_list WHERE schema = 'main' AND name = ?", (self.name,)).fetchone())
        info = con.execute("SELECT cid, name, type, pk, hidden FROM pragma_table_xinfo(?)", (self.name,)).fetchall()
        self.names = [n for _, n, _, _, _ in info]
        self.types = [t for _, _, t, _, _ in info]
        self.virtual = [i for i, *_, hidden in info if hidden == 2]
        alias = [c for c in self.cols if c.key and c.decl.upper() == "INTEGER" and " DESC" not in c.sql]
        self.alias = self.names.index(alias[0].name) if alias and not self.without_rowid else None
        real = [(t.upper() == "REAL") if self.strict else mv.affinity(t) == "REAL" for t in self.types]
        if self.without_rowid:
            pk = con.execute("SELECT name FROM pragma_index_list(?) WHERE origin = 'pk'", (self.name,)).fetchone()[0]
            self.keys = [c for (c,) in con.execute("SELECT cid FROM pragma_index_xinfo(?) WHERE key", (pk,))]
            order = [c for (c,) in con.execute("SELECT cid FROM pragma_index_xinfo(?)", (pk,)) if c >= 0]
        else:
            order = list(range(len(self.names)))
        self.storage = [(c, real[c]) for c in order if c not in self.virtual]
        lower = {n.lower() for n in self.names}
        rid = next((n for n in ("rowid", "oid", "_rowid_") if n not in lower), None)
        self.rid = rid if rid or self.without_rowid else qid(self.names[self.alias])

    def rows(self, con):
        """The rows as (key, rowid, values), in the engine's order."""
        cols = ", ".join(qid(n) for n in self.names)
        if self.without_rowid:
            return [(tuple(r[k] for k in self.keys), None, list(r))
                    for r in con.execute(f"SELECT {cols} FROM {qid(self.name)}")]
        return [((r[0],), r[0], list(r[1:]))
                for r in con.execute(f"SELECT {self.rid}, {cols} FROM {qid(self.name)} ORDER BY {self.rid}")]

    def where(self):
        if self.without_rowid:
            return " AND ".join(f"{qid(self.names[k])} = ?" for k in self.keys)
        return f"{self.rid} = ?"

    def cells(self, rowid, values, codec, usable):
        """The cells the row may have been written as (longest record first: rows older than
        ADD COLUMN lack the columns added), each as (fields, cell prefix, record, header length)."""
        fields = [field(None if c == self.alias else values[c], real, codec) for c, real in self.storage]
        out = []
        for n in range(len(fields), (self.min_stored or len(fields)) - 1, -1):
            rec, hlen = record(fields[:n])
            local = mv.local_size(len(rec), usable, self.without_rowid)
            head = varint(len(rec)) + (b"" if self.without_rowid else varint(rowid))
            out.append((n, head + rec[:local], rec, hlen))
        return out


# One database ------------------------------------------------------------------------------------
class Builder:
    def __init__(self, path, maker, kinds, index, case):
        self.path, self.maker, self.rng, self.case = path, maker, maker.rng, case
        self.page_size = mv.PAGE_SIZES[index % 8]
        self.encoding = mv.ENCODINGS[index % 3]
        # each case meets the three modes in three rounds of CASES
        self.auto_vacuum = "incremental" if case == "incremental-vacuum" else \
            mv.AUTO_VACUUM[(index + 2 * (index // len(CASES))) % 3]
        self.reserved = min(mv.RESERVED[(index // 3) % len(mv.RESERVED)], self.page_size - 480)
        self.usable = self.page_size - self.reserved
        self.codec = CODECS[self.encoding]
        self.vacuumed = False
        for leftover in (path, path + "-journal"):
            if os.path.exists(leftover):
                os.remove(leftover)
        mv.create_file(path, self.page_size, self.encoding, mv.AUTO_VACUUM.index(self.auto_vacuum), self.reserved)
        maker.page_size = self.page_size
        self.con = sqlite3.connect(path, isolation_level=None)
        for pragma in ("secure_delete=OFF", "synchronous=OFF"):
            self.con.execute("PRAGMA " + pragma)
        self.kinds = kinds
        self.tables, self.taken, self.step, self.inserted = [], {"scratch"}, 0, 0
        scratch = Table("scratch", [mv.Column("x", "")], ["empty"], "auto")
        scratch.load(self.con)
        self.tables.append(scratch)

    # Making tables --------------------------------------------------------------------------
    def column(self, taken, hint, name=None):
        col = mv.Column(name or self.maker.fresh_name(taken, 0.2), self.rng.choice(TYPE_HINTS[hint]), hint)
        col.sql = qid(col.name) + (" " + col.decl if col.decl else "")
        return col

    def create(self, shape, ncols=None, rowids="small", name=None, big=False):
        """A table of one of the generator's own shapes: no-alias (`id INT, name TEXT, ...`),
        alias, all-int, rowid-only, wide, without-rowid or overflow; rowids small (1-127,
        assigned by the engine), large (explicit, 8 to 62 bits) or auto."""
        rng = self.rng
        name = name or self.maker.fresh_name(self.taken, 0.3)
        taken, cols, shapes = set(), [], [shape]
        ncols = ncols or rng.randint(2, 7)
        alias = shape in ("alias", "rowid-only") or (shape in ("all-int", "wide", "overflow") and rng.random() < 0.5)
        if shape not in ("alias", "no-alias", "without-rowid"):
            shapes.append("alias" if alias else "no-alias")
        if shape == "rowid-only":
            ncols = 1
        if alias:
            cols.append(self.column(taken, "INT", "id"))
            cols[0].decl, cols[0].key = "INTEGER", True
            cols[0].sql = '"id" INTEGER PRIMARY KEY'
        elif shape != "without-rowid":
            cols.append(self.column(taken, "INT", "id"))
        if shape in ("no-alias", "alias") and ncols > 1:
            cols.append(self.column(taken, "TEXT", "name"))
        hints = ["INT"] if shape == "all-int" else ["INT", "TEXT", "REAL", "BLOB", None]
        while len(cols) < ncols:
            cols.append(self.column(taken, rng.choice(hints)))
        if big:
            cols.append(self.column(taken, rng.choice(["TEXT", "BLOB"])))
            cols[-1].big = True
        sql = f"CREATE TABLE {self.maker.quote(name)}({', '.join(c.sql for c in cols)}"
        if shape == "without-rowid":
            keys = cols[:rng.randint(1, 2)]
            for k in keys:
                k.key = True
                k.strict_type = k.strict_type or "TEXT"
            sql += f", PRIMARY KEY({', '.join(qid(k.name) for k in keys)})) WITHOUT ROWID"
            rowids = None
        else:
            sql += ")"
        if len(cols) >= 20:
            shapes.append("wide")
        self.con.execute(sql)
        t = Table(name, cols, shapes, rowids)
        t.load(self.con)
        self.tables.append(t)
        return t

    def create_variety(self, kind):
        """A table of one of make_variety.py's shapes, with its rows, ADD COLUMN and RENAME."""
        rng, maker = self.rng, self.maker
        others = [t.name for t in self.live()]
        name, sql, cols, kinds, explicit = maker.table(self.taken, others, kind)
        self.con.execute(sql)
        t = Table(name, cols, ["variety"] + [k.replace("_", "-") for k in kinds], "explicit" if explicit else "auto")
        t.load(self.con)
        self.tables.append(t)
        rows = {"deep": rng.randint(150, 400), "deep_key": 100, "overflow": rng.randint(3, 6)}.get(
            kind, rng.choice([8, 15, 25, 40]))
        big = int(self.page_size * rng.uniform(1.5, 4)) if kind == "overflow" else 0
        self.con.execute("BEGIN")
        mv.insert_rows(self.con, maker, name, cols, rows, explicit, big)
        self.con.execute("COMMIT")
        self.inserted += rows
        if kind == "altered":
            t.min_stored = len(t.storage)
            for _ in range(rng.randint(1, 3)):
                col = maker.column({c.name.lower() for c in cols}, "strict" in kinds)
                default = mv.STRICT_DEFAULTS[col.strict_type] if col.strict_type else rng.choice(mv.DEFAULTS)
                t.former.append(t.sql)
                self.con.execute(f"ALTER TABLE {qid(name)} ADD COLUMN {maker.quote(col.name)} {col.decl} "
                                 f"DEFAULT {default}")
                cols.append(col)
                t.load(self.con)
            self.insert(t, rng.randint(2, 6))
        if kind == "renamed":
            t.former.append(t.sql)
            t.name = maker.fresh_name(self.taken, 0.5)
            self.con.execute(f"ALTER TABLE {qid(name)} RENAME TO {maker.quote(t.name)}")
            t.load(self.con)
        return t

    def live(self):
        return [t for t in self.tables if not t.dropped]

    # Edits ----------------------------------------------------------------------------------------
    def rowid_for(self, t, used):
        """A new row's rowid, or None to let the engine choose (it picks at random once a rowid
        of 2^63-1 exists, so tables given explicit rowids always get them)."""
        if t.rowids == "small":
            used.add(max(used | {0}) + 1)
            return max(used)
        while t.rowids in ("large", "explicit"):
            bits = self.rng.choice([8, 16, 24, 32, 40, 48, 56, 62])
            r = self.rng.randint(2**(bits - 1), 2**bits) if t.rowids == "large" else self.rng.randint(-10**6, 10**6)
            if r not in used:
                used.add(r)
                return r
        return None

    def value(self, c, big):
        if getattr(c, "big", False):
            size = int(self.usable * self.rng.uniform(1.5, 5))
            return self.maker.text(size // 2) if c.strict_type == "TEXT" else self.maker.blob(size)
        if big and c.strict_type in ("TEXT", None, "BLOB") and self.rng.random() < 0.3:
            return self.maker.text(self.rng.randint(20, self.usable // 3))
        return self.maker.value(c)

    def insert(self, t, n, big=False):
        """Inserts n rows in one transaction (fewer when a constraint refuses one); big: some
        values up to a third of a page long."""
        used = {r for _, r, _ in t.rows(self.con)}
        self.con.execute("BEGIN")
        cols = [c for c in t.cols if not c.generated]
        for _ in range(n):
            names, values = [qid(c.name) for c in cols], [self.value(c, big) for c in cols]
            rowid = self.rowid_for(t, used)
            if rowid is not None and t.alias is not None:
                values[names.index(qid(t.names[t.alias]))] = rowid
            elif rowid is not None:
                names.insert(0, t.rid)
                values.insert(0, rowid)
                if t.rowids == "small" and '"id"' in names:  # id counts up, as the rowid does
                    values[names.index('"id"')] = rowid
            try:
                self.con.execute(f"INSERT INTO {qid(t.name)}({', '.join(names)}) VALUES "
                                 f"({', '.join('?' * len(values))})", values)
                self.inserted += 1
            except sqlite3.IntegrityError:
                pass
        self.con.execute("COMMIT")

    def capture(self, t, row, data):
        """The row's truth entry, after finding its cell in the file as it is now."""
        key, rowid, values = row
        for n, cell, rec, hlen in t.cells(rowid, values, self.codec, self.usable):
            if data.find(cell) >= 0:
                return {"rowid": rowid, "values": values, "record": rec, "hlen": hlen, "key": key, "fields": n,
                        "table": t, "overflow": len(rec) > mv.local_size(len(rec), self.usable, t.without_rowid)}
        sys.exit(f"{self.path}: the cell of {t.name} row {key} {values!r} is not in the file")

    def pick(self, targets):
        """Rows to edit: targets is [(table, count)]; returns captured rows in random order."""
        data = open(self.path, "rb").read()
        picks = []
        for t, n in targets:
            rows = t.rows(self.con)
            picks += [self.capture(t, r, data) for r in self.rng.sample(rows, min(n, len(rows)))]
        self.rng.shuffle(picks)
        return picks

    def register(self, picks, edit):
        self.step += 1
        for p in picks:
            p.update(edit=edit, step=self.step, tx=len(picks), inserted=self.inserted)
            p["table"].deleted.append(p)

    def delete(self, targets):
        picks = self.pick(targets)
        if not picks:
            return
        self.con.execute("BEGIN")
        for p in picks:
            cur = self.con.execute(f"DELETE FROM {qid(p['table'].name)} WHERE {p['table'].where()}", p["key"])
            assert cur.rowcount == 1, (self.path, p["table"].name, p["key"])
        self.con.execute("COMMIT")
        self.register(picks, "delete")

    def small_deletes(self, tables, times):
        for _ in range(times):
            t = self.rng.choice(tables)
            self.delete([(t, self.rng.randint(1, 5))])

    def update(self, t, n):
        """Updates n rows in one transaction: a value grown or shrunk (the cell moves) or, in a
        rowid table, a new rowid with a new value (the row moves in the b-tree)."""
        picks = self.pick([(t, n)])
        done = []
        self.con.execute("BEGIN")
        for p in picks:
            cols = [c for c in t.cols if not c.generated and not c.key and c.name != "id"]
            if not cols:
                continue
            c = self.rng.choice(cols)
            old = p["values"][t.names.index(c.name)]
            how = self.rng.choice(["grow", "shrink"] + ([] if t.without_rowid else ["move"]))
            if how == "grow" and c.strict_type in (None, "TEXT", "BLOB"):
                new = (old if isinstance(old, str) else "") + self.maker.text(self.rng.randint(30, self.usable // 4))
            elif how == "shrink":
                new = self.rng.choice([None, 7, "s"])
            else:
                new = self.value(c, False)
            sets, args = [f"{qid(c.name)} = ?"], [new]
            if how == "move":
                sets.append(f"{t.rid} = ?")
                used = {r for _, r, _ in t.rows(self.con)}
                args.append(next(r for r in iter(lambda: self.rng.randint(-2**62, 2**62), None) if r not in used))
            try:
                cur = self.con.execute(f"UPDATE {qid(t.name)} SET {', '.join(sets)} WHERE {t.where()}",
                                       args + list(p["key"]))
            except sqlite3.IntegrityError:
                continue
            if how != "move":  # an update that left the value as it was removed nothing
                now = self.con.execute(f"SELECT {qid(c.name)} FROM {qid(t.name)} WHERE {t.where()}",
                                       p["key"]).fetchone()[0]
                if type(now) is type(old) and repr(now) == repr(old):
                    continue
            if cur.rowcount == 1:
                done.append(p)
        self.con.execute("COMMIT")
        self.register(done, "update")

    def drop(self, t):
        data = open(self.path, "rb").read()
        picks = [self.capture(t, r, data) for r in t.rows(self.con)]
        t.root = self.con.execute("SELECT rootpage FROM sqlite_master WHERE type = 'table' AND name = ?",
                                  (t.name,)).fetchone()[0]
        t.indexes = [{"name": n, "sql": s, "rootPage": r} for n, s, r in self.con.execute(
            "SELECT name, sql, rootpage FROM sqlite_master WHERE type = 'index' AND tbl_name = ?", (t.name,))]
        self.con.execute(f"DROP TABLE {qid(t.name)}")
        t.dropped = True
        t.tags.append("shape:dropped")
        self.register(picks, "drop")

    def index(self, t):
        cols = [c for c in t.cols if not c.generated][:2]
        self.con.execute(f"CREATE INDEX {qid(self.maker.fresh_name(self.taken, 0.3))} ON {qid(t.name)}"
                         f"({', '.join(qid(c.name) for c in cols)})")

    def incremental_vacuum(self, n=None):
        self.con.execute(f"PRAGMA incremental_vacuum{'' if n is None else f'({n})'}").fetchall()
        self.vacuumed = True

    # The scenarios ----------------------------------------------------------------------------
    def run(self):
        self.drop(self.tables[0])  # the empty table that made the file
        getattr(self, "case_" + self.case.replace("-", "_"))()
        for t in self.live():
            t.root = self.con.execute("SELECT rootpage FROM sqlite_master WHERE type = 'table' AND name = ?",
                                      (t.name,)).fetchone()[0]
            t.live = [v for _, _, v in t.rows(self.con)]
        self.con.close()

    def made(self, shape, rows, **kw):
        t = self.create(shape, **kw)
        self.insert(t, rows, big=kw.get("big", False))
        return t

    def case_no_alias(self):
        ts = [self.made("no-alias", self.rng.randint(20, 120)) for _ in range(2)]
        ts.append(self.create_variety(next(self.kinds)))
        self.small_deletes(ts, self.rng.randint(8, 14))

    def case_all_int(self):
        r = self.rng
        ts = [self.made("all-int", r.randint(20, 120), ncols=r.randint(1, 12), rowids=w) for w in
              ("small", "small", "large")]
        self.small_deletes(ts, r.randint(8, 14))
        self.delete([(r.choice(ts), r.randint(10, 30))])

    def case_rowid_only(self):
        r = self.rng
        ts = [self.made("rowid-only", r.randint(30, 120), rowids=w) for w in ("small", "large")]
        ts.append(self.made("alias", r.randint(20, 60), rowids="large"))
        self.small_deletes(ts, r.randint(8, 14))

    def case_large_rowid(self):
        r = self.rng
        ts = [self.made(s, r.randint(20, 100), rowids="large") for s in ("no-alias", "alias", "all-int")]
        self.small_deletes(ts, r.randint(6, 10))
        self.delete([(r.choice(ts), r.randint(10, 20))])

    def case_wide(self):
        r = self.rng
        ts = [self.made(s, r.randint(10, 40), ncols=r.randint(20, 40)) for s in ("no-alias", "wide")]
        self.small_deletes(ts, r.randint(6, 10))

    def case_large_tx(self):
        r = self.rng
        big = self.made("no-alias", r.randint(300, 700), rowids="auto")
        other = self.made("alias", r.randint(100, 300), rowids="auto")
        self.small_deletes([big, other], 3)
        self.delete([(big, r.randint(100, 200))])
        self.small_deletes([big, other], 3)
        self.delete([(big, r.randint(50, 80)), (other, r.randint(50, 80))])

    def case_insert_after_delete(self):
        r = self.rng
        ts = [self.made(s, r.randint(20, 80), rowids="auto") for s in ("no-alias", "alias", "all-int")]
        for _ in range(3):
            self.small_deletes(ts, r.randint(2, 4))
            for t in r.sample(ts, 2):
                self.insert(t, r.randint(2, 10), big=True)

    def case_update_move(self):
        r = self.rng
        ts = [self.made(s, r.randint(15, 60), rowids="auto") for s in ("no-alias", "alias", "without-rowid")]
        for _ in range(6):
            self.update(r.choice(ts), r.randint(1, 5))
        self.small_deletes(ts, 3)

    def case_drop(self):
        r = self.rng
        full = self.made("alias", r.randint(20, 80))
        self.index(full)
        empty = self.create("no-alias")
        kept = self.made("no-alias", r.randint(20, 60))
        other = self.create_variety(next(self.kinds))
        self.small_deletes([kept, other], r.randint(3, 6))
        newer = self.made(r.choice(["no-alias", "all-int"]), r.randint(10, 40))
        self.drop(full)
        self.drop(empty)
        self.insert(newer, r.randint(5, 30))  # over the dropped table's pages
        self.small_deletes([kept, newer], r.randint(2, 5))

    def case_drop_recreate(self):
        r = self.rng
        a = self.made("no-alias", r.randint(20, 80))
        b = self.made("alias", r.randint(10, 40))
        self.small_deletes([a, b], r.randint(2, 5))
        for t in (a, b):
            self.drop(t)
            t.tags.append("shape:recreated")
            new = self.made(r.choice(["no-alias", "alias", "all-int", "without-rowid"]), r.randint(10, 50),
                            name=t.name, ncols=r.randint(2, 9))
            new.tags.append("shape:recreated")
            self.small_deletes([new], r.randint(2, 4))

    def case_overflow_reuse(self):
        r = self.rng
        ts = [self.made("overflow", r.randint(6, 12), big=True) for _ in range(2)]
        for t in ts:
            self.delete([(t, r.randint(1, 3))])
            self.delete([(t, r.randint(1, 2))])
        for t in ts:
            self.insert(t, r.randint(1, 3), big=True)
        self.small_deletes(ts, r.randint(2, 3))

    def case_without_rowid(self):
        r = self.rng
        ts = [self.made("without-rowid", r.randint(30, 150)) for _ in range(2)]
        ts.append(self.create_variety(r.choice(["without_rowid", "without_rowid_multi_key", "deep_key"])))
        self.small_deletes(ts, r.randint(6, 10))
        self.delete([(ts[0], r.randint(20, 40))])
        self.update(ts[1], r.randint(1, 4))

    def case_incremental_vacuum(self):
        r = self.rng
        ts = [self.made("alias", r.randint(30, 100)), self.made("no-alias", r.randint(30, 100)),
              self.made("overflow", r.randint(3, 6), big=True)]
        self.small_deletes(ts, r.randint(3, 6))
        self.delete([(ts[1], r.randint(20, 40))])
        self.drop(ts[2])
        self.incremental_vacuum(r.randint(1, 3))
        self.small_deletes(ts[:2], r.randint(3, 6))
        self.incremental_vacuum(r.choice([None, 2]))

    def case_variety(self):
        r = self.rng
        ts = [self.create_variety(next(self.kinds)) for _ in range(r.randint(3, 4))]
        ts = [t for t in ts if t.rows(self.con)] or ts
        self.small_deletes(ts, r.randint(5, 8))
        for t in r.sample(ts, 2):
            self.update(t, r.randint(1, 3))
        self.delete([(r.choice(ts), r.randint(10, 30))])


# Truth and survival --------------------------------------------------------------------------
def json_value(v):
    if isinstance(v, bytes):
        return {"blob": base64.b64encode(v).decode()}
    if isinstance(v, float) and v in (float("inf"), float("-inf")):
        return {"real": "Infinity" if v > 0 else "-Infinity"}
    return v


def row_tags(b, t, p):
    tx = p["tx"]
    tags = [f"edit:{p['edit']}", "tx:1-5" if tx <= 5 else "tx:100+" if tx >= 100 else "tx:6-99",
            "payload:overflow" if p["overflow"] else "payload:local"]
    if p["inserted"] < b.inserted:
        tags.append("edit:then-insert")
    if p["rowid"] is not None:
        tags.append("rowid:1-127" if 1 <= p["rowid"] <= 127 else "rowid:2^31+" if abs(p["rowid"]) >= 2**31
                    else "rowid:other")
    return tags


def finish(b, data):
    """The truth of one built database: tags, tables, and which deleted rows survive."""
    free = FreeBytes(data, b.page_size, b.usable)
    db_tags = [f"case:{b.case}", f"page:{b.page_size}", f"encoding:{b.encoding}", f"vacuum:{b.auto_vacuum}",
               f"reserved:{'yes' if b.reserved else 'no'}"] + (["vacuum:incremental_vacuum(N)"] if b.vacuumed else [])
    tables = []
    for t in b.tables:
        rows = []
        for p in t.deleted:
            rec, hlen = p["record"], p["hlen"]
            local = mv.local_size(len(rec), b.usable, t.without_rowid)
            needle = rec[varint_end(rec, varint_end(rec, 0)):local]
            if not needle:  # nothing but serial types: the whole cell must be there
                needle = varint(len(rec)) + (b"" if t.without_rowid else varint(p["rowid"])) + rec[:local]
            survives = local_here = free.has(needle)
            if p["overflow"]:
                step = b.usable - 4
                survives = local_here and all(free.has(rec[o:o + step])
                                              for o in range(local, len(rec), step))
            entry = {"rowid": p["rowid"], "values": [json_value(v) for v in p["values"]], "edit": p["edit"],
                     "step": p["step"], "tx": p["tx"], "header": rec[:hlen].hex(), "fields": p["fields"],
                     "payload": len(rec),
                     "overflow": p["overflow"], "survives": survives}
            if p["overflow"]:
                entry["localSurvives"] = local_here
            entry["tags"] = db_tags + t.tags + row_tags(b, t, p)
            rows.append(entry)
        extra = {}
        if t.dropped:  # its schema row, as sqlite_master stored it
            rec, _ = record([field(v, False, b.codec) for v in ("table", t.name, t.name, t.root, t.sql)])
            extra["schemaSurvives"] = free.has(rec[varint_end(rec, varint_end(rec, 0)):])
        tables.append({"name": t.name, "dropped": t.dropped, "sql": t.sql, "rootPage": t.root,
                       "withoutRowid": t.without_rowid, "strict": t.strict, "columns": t.names,
                       "types": t.types, "rowidColumn": t.alias, "virtualColumns": t.virtual,
                       "tags": db_tags + t.tags, "formerSql": t.former, "indexes": t.indexes,
                       "live": [[json_value(v) for v in r] for r in t.live], "deleted": rows, **extra})
    return {"case": b.case, "pageSize": b.page_size, "reservedBytes": b.reserved, "encoding": b.encoding,
            "autoVacuum": b.auto_vacuum, "tags": db_tags, "tables": tables}


def generate(out, seed=1, count=len(CASES)):
    os.makedirs(out, exist_ok=True)
    rng = random.Random(seed)
    maker = mv.Maker(rng)
    kinds = itertools.cycle(VARIETY_KINDS)
    databases = []
    for i in range(count):
        case = CASES[i % len(CASES)]
        path = os.path.join(out, f"r{i:03d}.db")
        b = Builder(path, maker, kinds, i, case)
        b.run()
        data = open(path, "rb").read()
        databases.append({"file": os.path.basename(path), **finish(b, data),
                          "sha256": hashlib.sha256(data).hexdigest()})
    source = hashlib.sha256(open(__file__, "rb").read() + open(mv.__file__, "rb").read()).hexdigest()
    generator = {"seed": seed, "count": count, "source": source, "sqlite": sqlite3.sqlite_version}
    with open(os.path.join(out, "truth.json"), "w", encoding="utf-8") as f:
        json.dump({"generator": generator, "databases": databases}, f, ensure_ascii=False)
    manifest = {"generator": generator, "counts": tally(databases), "databases": [
        {k: v for k, v in d.items() if k != "tables"} | {"tables": [
            {"name": t["name"], "dropped": t["dropped"], "rootPage": t["rootPage"], "columns": len(t["columns"]),
             "tags": [g for g in t["tags"] if g.startswith("shape:")], "live": len(t["live"]),
             "deleted": len(t["deleted"]), "surviving": sum(r["survives"] for r in t["deleted"])}
            for t in d["tables"]]} for d in databases]}
    with open(os.path.join(out, "manifest.json"), "w", encoding="utf-8") as f:
        json.dump(manifest, f, indent=1, ensure_ascii=False)
    return manifest


def tally(databases):
    """Deleted rows and surviving ones, by tag, over all databases."""
    by = {}
    for d in databases:
        for t in d["tables"]:
            for r in t["deleted"]:
                for tag in r["tags"]:
                    c = by.setdefault(tag, [0, 0])
                    c[0] += 1
                    c[1] += r["survives"]
    tables = [t for d in databases for t in d["tables"]]
    return {"databases": len(databases), "tables": len(tables), "droppedTables": sum(t["dropped"] for t in tables),
            "deleted": sum(len(t["deleted"]) for t in tables),
            "surviving": sum(r["survives"] for t in tables for r in t["deleted"]),
            "byTag": {k: {"deleted": v[0], "surviving": v[1]} for k, v in sorted(by.items())}}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("out")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=2 * len(CASES))
    args = parser.parse_args()
    c = generate(args.out, args.seed, args.count)["counts"]
    print(f"{c['databases']} databases, {c['tables']} tables ({c['droppedTables']} dropped), "
          f"{c['deleted']} deleted rows, {c['surviving']} of them surviving")


if __name__ == "__main__":
    main()
