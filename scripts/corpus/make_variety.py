#!/usr/bin/env python3
"""Makes many small SQLite databases, written by the sqlite3 library itself, for checking a reader
that reads the file page by page against the engine.

    make_variety.py OUT_DIR [--seed N] [--count N] [--huge]

Everything is drawn from one random.Random(seed), so a seed and a count always give the same files,
byte for byte. The databases cover random schemas (every declared-type spelling and affinity,
column and table constraints, comments and odd white space in CREATE TABLE, generated columns,
rowid aliases and columns named rowid), names with every kind of character in all four quoting
styles, WITHOUT ROWID and STRICT tables, ALTER TABLE ADD COLUMN defaults, values of every serial
type at its edges, overflowing rows, the three text encodings, every page size from 512 to 65,536
with and without reserved bytes, the three auto_vacuum modes, and indexes, views, triggers,
full-text tables and statistics beside the tables. Damaged copies (bytes after the last page, a
header page count that disagrees with the length, a broken free list) are kept beside their
original. --huge adds one database past 4 GiB whose last table lies past that offset.

OUT_DIR/manifest.json lists every database with what it covers and the counts: databases,
tables, rows, and stored values by serial-type class (read from the records of the file).
"""
import argparse
import ctypes
import hashlib
import itertools
import json
import math
import mmap
import os
import random
import re
import sqlite3
import struct
import sys

PAGE_SIZES = [512, 1024, 2048, 4096, 8192, 16384, 32768, 65536]
ENCODINGS = ["UTF-8", "UTF-16le", "UTF-16be"]
AUTO_VACUUM = ["none", "full", "incremental"]
RESERVED = [0, 8, 32, 0, 17]
SQLITE_FCNTL_RESERVE_BYTES = 38

# Declared types: the documented spellings of each affinity and odd ones ("FLOATING POINT" and
# "POINT" hold "INT", so they have INTEGER affinity; a comment inside a type is part of it).
TYPES = [
    "INT", "INTEGER", "integer", "TINYINT", "SMALLINT", "MEDIUMINT", "BIGINT", "UNSIGNED BIG INT",
    "INT2", "INT8", "CHARACTER(20)", "VARCHAR(255)", "VARCHAR ( 255 )", "VARYING CHARACTER(255)",
    "NCHAR(55)", "NATIVE CHARACTER(70)", "NVARCHAR(100)", "TEXT", "CLOB", "BLOB", "", "", "REAL",
    "DOUBLE", "DOUBLE PRECISION", "FLOAT", "NUMERIC", "DECIMAL(10,5)", "NUMERIC(+10, -5)",
    "BOOLEAN", "DATE", "DATETIME", "STRINGY", "FLOATING POINT", "POINT", "MONEY", "'REAL'",
    '"DOUBLE"', "REAL /* INT */ (5)", "DOUBLE /* x, y */ PRECISION", "BLOBBY",
]
STRICT_TYPES = ["INT", "INTEGER", "REAL", "TEXT", "BLOB", "ANY"]

# Names with every class of character; keywords and names a parser could take for syntax.
ODD_NAMES = [
    "with space", "it's", 'say "hi"', "[bracketed]", "back`tick", "tab\there", "new\nline",
    "cr\r\nlf", "ünïcödé", "名前", "emoji 😀", "-dash", "--", "-- not a comment", "--json",
    "/* not a comment */", "a, b", "(paren)", "semi;colon", "", "select", "table", "primary",
    "constraint", "unique", "check", "foreign", "without rowid", "strict", "123", "x.y",
    "  lead and trail  ", "'", '"', "[", "]", "`", "null", "default", "Key", "order",
]
PLAIN_WORDS = ["alpha", "beta", "gamma", "delta", "value", "amount", "label", "payload", "key",
               "abort", "action", "replace", "without", "generated", "always", "first", "temp"]
RESERVED_WORDS = {"select", "table", "primary", "constraint", "unique", "check", "foreign", "null",
                  "default", "order", "references", "collate", "as", "not", "index", "on", "and"}
BARE = re.compile(r"[A-Za-z_][A-Za-z0-9_]*")

WHITE = [" ", " ", " ", "\t", "\n", "\n  ", "\r\n", "\f", " /* c, d */ ", "/*(*/", " -- e, f (\n"]

INT_EDGES = [0, 1, -1, 2, 127, -127, 128, -128, 129, -129, 255, 256, 32767, -32767, 32768,
             -32768, 32769, -32769, 86400, 100000, -100000, 8388607, -8388607, 8388608, -8388608,
             8388609, -8388609, 2**31 - 1, -2**31 + 1, 2**31, -2**31, -2**31 - 1, -3000000000,
             2**47 - 1, -2**47 + 1, 2**47, -2**47, -2**47 - 1, 2**48, 2**53 + 1, 2**63 - 1,
             -2**63, -2**63 + 1]
REAL_EDGES = [0.0, -0.0, 1.0, -1.0, 0.5, -2.5, 100.0, 1e300, -1e300, 5e-324, -5e-324,
              2.2250738585072014e-308, 1.7976931348623157e308, math.inf, -math.inf, 0.1, 1 / 3,
              2.0**53, 2.0**63, -2.0**63, 1e16, 1e15 + 0.3, 123456.789, 1e-7, 3e10, 140737488355328.0]
TEXT_EDGES = ["", "a", "hello, world", "quote \"x\" and 'y'", "line\nbreak", "crlf\r\nend",
              "tab\tx", "  spaces  ", "ünïcödé", "中文字符", "emoji 😀🎉", "nul\x00inside", "NULL",
              "0", "1.5", " 12 ", "1e5", "-0", "x'00'", "=1+2", "9223372036854775808"]
ALPHABET = "abcdefghijklmnopqrstuvwxyzABCDEF 0123456789,\"'\n\t;é中😀"

TABLE_KINDS = ["rowid", "ipk", "ipk_table_form", "ipk_desc_not_alias", "autoincrement",
               "without_rowid", "without_rowid_multi_key", "strict", "strict_without_rowid",
               "altered", "generated", "rowid_named_columns", "all_rowid_names_ipk", "wide",
               "deep", "deep_key", "overflow", "as_select", "renamed", "dropped_column"]
DEFAULTS = ["0", "-1", "+7", "-9223372036854775808", "9223372036854775807", "1.5", "1.0", "1.50", "-0.0",
            "1e300", "'a, b'", "'it''s'", "'(x)'", "x'00ff'", "NULL", "TRUE", "FALSE", "0x7fffffff",
            "-0x10", "'  12  '", "1e3", "''"]
EXPR_DEFAULTS = ["(1 + 2)", "(-(3))", "('a' || ',' || 'b')", "(abs(-5))", "((1) * (2.5))"]
STRICT_DEFAULTS = {"INT": "-1", "INTEGER": "32768", "REAL": "1.5", "TEXT": "'a, b'",
                   "BLOB": "x'00ff'", "ANY": "'any'"}
CHECKS = ["CHECK ({c} IS NULL OR typeof({c}) IN ('integer', 'real', 'text', 'blob'))",
          "CHECK (length(coalesce({c}, '')) >= 0)", "CHECK ((({c} = {c}) OR ({c} IS NULL)) OR 1)"]
GENERATED = ["typeof({c})", "length({c})", "coalesce({c}, 'a, b')", "({c} IS NULL)", "quote({c})"]


def qid(name):
    return '"' + name.replace('"', '""') + '"'


def affinity(decl):
    t = decl.upper()
    if "INT" in t:
        return "INTEGER"
    if "CHAR" in t or "CLOB" in t or "TEXT" in t:
        return "TEXT"
    if "BLOB" in t or not t:
        return "BLOB"
    if "REAL" in t or "FLOA" in t or "DOUB" in t:
        return "REAL"
    return "NUMERIC"


class Column:
    def __init__(self, name, decl, strict_type=None):
        self.name, self.decl, self.strict_type = name, decl, strict_type
        self.notnull = self.key = self.generated = False
        self.long_text = 0  # every value a text of this many characters
        self.sql = ""


class Maker:
    """Draws schemas, names and values from one random.Random."""

    def __init__(self, rng):
        self.rng = rng
        self.odd_names = itertools.cycle(rng.sample(ODD_NAMES, len(ODD_NAMES)))
        self.kinds = itertools.cycle(TABLE_KINDS)
        self.serial = 0
        self.page_size = 4096  # of the database being made

    def ws(self):
        return self.rng.choice(WHITE)

    def quote(self, name):
        """The name in one of the four quoting styles, or bare where that is possible."""
        styles = ['"', "`", "'"] + (["["] if "]" not in name else [])
        if BARE.fullmatch(name) and name.lower() not in RESERVED_WORDS:
            styles.append("")
        style = self.rng.choice(styles)
        if style == "[":
            return "[" + name + "]"
        return style + name.replace(style, style * 2) + style if style else name

    def fresh_name(self, taken, odd_chance):
        """A name not in taken (compared as the engine does, ASCII case folded)."""
        for _ in range(3):
            if self.rng.random() < odd_chance:
                name = next(self.odd_names)
            else:
                self.serial += 1
                name = f"{self.rng.choice(PLAIN_WORDS)}_{self.serial}"
            if name.lower() not in taken and not name.lower().startswith("sqlite_"):
                taken.add(name.lower())
                return name
        self.serial += 1
        taken.add(f"n_{self.serial}")
        return f"n_{self.serial}"

    # Values -------------------------------------------------------------------------------
    def integer(self):
        if self.rng.random() < 0.6:
            return self.rng.choice(INT_EDGES)
        bits = self.rng.choice([7, 15, 23, 31, 47, 63])
        return self.rng.randint(-2**bits, 2**bits - 1)

    def real(self):
        if self.rng.random() < 0.6:
            return self.rng.choice(REAL_EDGES)
        if self.rng.random() < 0.5:
            return self.rng.uniform(-1e6, 1e6)
        value = struct.unpack("<d", self.rng.getrandbits(64).to_bytes(8, "little"))[0]
        return 0.25 if math.isnan(value) else value

    def text(self, size=None):
        if size is None and self.rng.random() < 0.6:
            return self.rng.choice(TEXT_EDGES)
        return "".join(self.rng.choices(ALPHABET, k=size or self.rng.randint(1, 300)))

    def blob(self, size=None):
        if size is None and self.rng.random() < 0.3:
            return self.rng.choice([b"", b"\x00", bytes(range(256))])
        return self.rng.randbytes(size or self.rng.randint(1, 200))

    def value(self, column, big=0):
        """A value for the column: any class, or one its STRICT type takes; big asks for
        a value of about that many bytes."""
        if column.long_text:
            return self.text(column.long_text)
        kinds = {"INT": "ni", "INTEGER": "ni", "REAL": "nir", "TEXT": "nt", "BLOB": "nb"}.get(
            column.strict_type, "nirtb")
        if column.notnull or column.key:
            kinds = kinds.replace("n", "")
        kind = self.rng.choice(kinds)
        if big and kind in "tb":
            return self.text(big // 2) if kind == "t" else self.blob(big)
        return {"n": lambda: None, "i": self.integer, "r": self.real, "t": self.text,
                "b": self.blob}[kind]()

    # Tables -------------------------------------------------------------------------------
    def column(self, taken, strict, name=None):
        col = Column(name or self.fresh_name(taken, 0.35), "")
        if strict:
            col.strict_type = col.decl = self.rng.choice(STRICT_TYPES)
        else:
            col.decl = self.rng.choice(TYPES)
        return col

    def constraints(self, col, others, strict):
        """Column constraints in random order, some named, some with nested parentheses."""
        rng, ops = self.rng, []
        if rng.random() < 0.12:
            ops.append("NOT NULL")
            col.notnull = True
        if rng.random() < 0.08:
            ops.append("UNIQUE")
        if rng.random() < 0.2:
            ops.append(rng.choice(CHECKS).format(c=qid(col.name)))
        if rng.random() < 0.3:
            ops.append("DEFAULT " + (STRICT_DEFAULTS[col.strict_type] if strict
                                     else rng.choice(DEFAULTS + EXPR_DEFAULTS)))
        if rng.random() < 0.12:
            ops.append("COLLATE " + rng.choice(["NOCASE", "RTRIM", "BINARY"]))
        if others and rng.random() < 0.1:
            ops.append(f"REFERENCES {qid(rng.choice(others))} ON DELETE "
                       + rng.choice(["CASCADE", "SET NULL", "NO ACTION", "RESTRICT"]))
        ops = [f"CONSTRAINT {self.quote(f'c{rng.randint(0, 99)}')} {op}" if rng.random() < 0.2 else op
               for op in ops]
        rng.shuffle(ops)
        return ops

    def table(self, taken_names, others, kind):
        """A table of the given kind: its name, CREATE statement, columns and what it covers.
        Columns marked key never take NULL; an IPK column takes integers only."""
        rng = self.rng
        strict = kind.startswith("strict") or rng.random() < 0.1
        without_rowid = "without_rowid" in kind or kind == "deep_key" or (kind == "rowid" and rng.random() < 0.15)
        name = self.fresh_name(taken_names, 0.6)
        kinds = {kind}
        kinds |= {"strict"} if strict else set()
        kinds |= {"without_rowid"} if without_rowid else set()
        taken = set()
        cols = [self.column(taken, strict) for _ in range(rng.randint(60, 90) if kind == "wide"
                                                          else rng.randint(1, 7))]
        if kind in ("rowid_named_columns", "all_rowid_names_ipk"):
            names = rng.sample(["rowid", "oid", "_rowid_"], 3 if kind == "all_rowid_names_ipk"
                               else rng.randint(1, 2))
            for n in names:
                taken.add(n)
                cols.insert(rng.randint(0, len(cols)), self.column(taken, strict, n))
        table_constraints, ipk = [], None
        if kind in ("ipk", "autoincrement", "all_rowid_names_ipk", "ipk_table_form", "ipk_desc_not_alias"):
            ipk = Column(self.fresh_name(taken, 0.3), rng.choice(["INTEGER", "integer", "Integer"]), "INTEGER")
            ipk.key = True
            cols.insert(rng.randint(0, len(cols)), ipk)
            if kind == "ipk_table_form":
                table_constraints.append(f"PRIMARY KEY({qid(ipk.name)}{rng.choice(['', ' ASC', ' DESC'])})")
            else:
                ipk.sql = " PRIMARY KEY" + {"autoincrement": " AUTOINCREMENT", "ipk_desc_not_alias": " DESC"}.get(
                    kind, rng.choice(["", " ASC"]))
        if without_rowid:
            many = kind == "without_rowid_multi_key" and len(cols) > 1
            keys = rng.sample(cols, rng.randint(2, min(3, len(cols))) if many else 1)
            for k in keys:
                k.key = True
            if kind == "deep_key":  # keys of an eighth of a page: a b-tree three or four levels deep
                keys[0].long_text = self.page_size // 8
                keys[0].decl = keys[0].strict_type = "TEXT" if strict else keys[0].decl
            if not many and rng.random() < 0.5:
                keys[0].sql = " PRIMARY KEY" + rng.choice(["", " DESC", " ASC"])
            else:
                terms = [qid(k.name) + rng.choice(["", " DESC", " ASC", " COLLATE NOCASE"]) for k in keys]
                if many and rng.random() < 0.3:
                    terms.append(qid(keys[0].name))
                    kinds.add("duplicate_key_column")
                table_constraints.append(f"PRIMARY KEY({', '.join(terms)})")
        elif kind == "rowid" and len(cols) > 1 and rng.random() < 0.3:
            a, b = rng.sample(cols, 2)
            table_constraints.append(f"PRIMARY KEY({qid(a.name)}, {qid(b.name)})")
        sources = [c for c in cols if c is not ipk]
        if sources and (kind == "generated" or rng.random() < 0.1):
            for how in ["STORED", "VIRTUAL"]:
                g = Column(self.fresh_name(taken, 0.3), "ANY" if strict else rng.choice(TYPES))
                expr = rng.choice(GENERATED).format(c=qid(rng.choice(sources).name))
                g.sql = f" {rng.choice(['GENERATED ALWAYS AS', 'AS'])} ({expr}) {how}"
                g.generated = True
                cols.append(g)
                kinds.add("generated_" + how.lower())
        for c in cols:
            extra = [] if c.generated or c is ipk else self.constraints(c, others, strict)
            c.sql = (self.quote(c.name) + (self.ws() + c.decl if c.decl else "") + c.sql
                     + "".join(" " + e for e in extra))
        if len(cols) > 1 and rng.random() < 0.25:
            a, b = rng.sample(cols, 2)
            table_constraints.append(rng.choice(["", f"CONSTRAINT {self.quote('u')} "])
                                     + f"UNIQUE ({qid(a.name)}, {qid(b.name)})")
        if rng.random() < 0.2:
            table_constraints.append(rng.choice(CHECKS).format(c=qid(cols[0].name)))
        if others and rng.random() < 0.15:
            table_constraints.append(f"FOREIGN KEY({qid(cols[-1].name)}) REFERENCES "
                                     f"{qid(rng.choice(others))} ON UPDATE CASCADE")
        options = [o for o, on in (("WITHOUT ROWID", without_rowid), ("STRICT", strict)) if on]
        rng.shuffle(options)
        head = rng.choice(["CREATE TABLE ", "create table ", "CREATE TABLE IF NOT EXISTS ", "Create\tTable\n"])
        sql = (head + self.quote(name) + self.ws() + "(" + self.ws()
               + ("," + self.ws()).join([c.sql for c in cols] + table_constraints)
               + self.ws() + ")" + (self.ws() + ", ".join(options) if options else ""))
        explicit_rowid = not without_rowid and ipk is None and rng.random() < 0.5
        return name, sql, cols, sorted(kinds), explicit_rowid


# Writing ----------------------------------------------------------------------------------------
def create_file(path, page_size, encoding, auto_vacuum, reserved):
    """Creates the database through the C interface: reserved bytes per page can only be set with
    a file control before anything is written, and auto_vacuum writes the header at once."""
    lib = ctypes.CDLL("libsqlite3.so.0")
    db = ctypes.c_void_p()
    if lib.sqlite3_open_v2(path.encode(), ctypes.byref(db), 0x06, None) != 0:
        sys.exit(f"cannot create {path}")

    def run(sql):
        if lib.sqlite3_exec(db, sql.encode(), None, None, None) != 0:
            sys.exit(f"{path}: {sql} failed")

    run(f"PRAGMA page_size={page_size}; PRAGMA encoding='{encoding}'")
    n = ctypes.c_int(reserved)
    lib.sqlite3_file_control(db, b"main", SQLITE_FCNTL_RESERVE_BYTES, ctypes.byref(n))
    run(f"PRAGMA auto_vacuum={auto_vacuum}; CREATE TABLE scratch(x)")
    lib.sqlite3_close(db)


def insert_rows(con, maker, name, cols, count, explicit_rowid, big=0):
    """Inserts rows, each naming a random subset of its columns (the others take their
    defaults), with a rowid of its own when explicit_rowid; a row the constraints refuse is
    left out. Rowids are all explicit or all automatic: after 2^63-1 the engine would pick one at
    random."""
    rng, used = maker.rng, set()
    taken = {c.name.lower() for c in cols}
    rowid_name = next(n for n in ("rowid", "oid", "_rowid_") if n not in taken) if explicit_rowid else None
    for _ in range(count):
        chosen = [c for c in cols if not c.generated and (c.key or c.notnull or rng.random() < 0.85)]
        names = [qid(c.name) for c in chosen]
        values = [maker.value(c, big if rng.random() < 0.5 else 0) for c in chosen]
        if rowid_name:
            rowid = maker.integer() if rng.random() < 0.5 else rng.randint(-10**6, 10**6)
            if rowid in used:
                continue
            used.add(rowid)
            names.insert(0, rowid_name)
            values.insert(0, rowid)
        sql = (f"INSERT INTO {qid(name)}({', '.join(names)}) VALUES ({', '.join('?' * len(values))})"
               if names else f"INSERT INTO {qid(name)} DEFAULT VALUES")
        try:
            con.execute(sql, values)
        except sqlite3.IntegrityError:
            pass


def build_database(path, maker, index):
    """Database index of the run: its page size, encoding, auto_vacuum and reserved bytes come
    from its index (so that any sixteen in a row have every one), its tables from the random source."""
    rng = maker.rng
    page_size = PAGE_SIZES[index % 8]
    encoding = ENCODINGS[index % 3]
    auto_vacuum = AUTO_VACUUM[(index // 2) % 3]
    reserved = min(RESERVED[(index // 3) % len(RESERVED)], page_size - 480)
    create_file(path, page_size, encoding, AUTO_VACUUM.index(auto_vacuum), reserved)
    maker.page_size = page_size
    con = sqlite3.connect(path, isolation_level=None)
    con.execute("PRAGMA secure_delete=OFF")
    con.execute("PRAGMA synchronous=OFF")
    con.execute("BEGIN")
    con.executemany("INSERT INTO scratch VALUES (?)",
                    [(rng.randbytes(page_size * 2),) for _ in range(rng.randint(2, 6))])
    taken, made, kinds = {"scratch"}, [], {}
    for _ in range(rng.randint(2, 5)):
        kind = next(maker.kinds)
        if kind == "as_select" and not made:
            kind = "rowid"
        if kind == "as_select":
            name = maker.fresh_name(taken, 0.5)
            con.execute(f"CREATE TABLE {maker.quote(name)} AS SELECT * FROM {qid(rng.choice(made)[0])}")
            kinds[name] = ["as_select"]
            continue
        name, sql, cols, table_kinds, explicit = maker.table(taken, [m[0] for m in made], kind)
        con.execute(sql)
        kinds[name] = table_kinds
        rows = {"deep": rng.randint(300, 900), "deep_key": 150, "overflow": rng.randint(3, 6)}.get(
            kind, rng.choice([0, 1, 3, 8, 15, 25, 40]))
        big = int(page_size * rng.uniform(1.5, 4)) if kind == "overflow" else 0
        insert_rows(con, maker, name, cols, rows, explicit, big)
        if kind == "altered" or rng.random() < 0.1:
            for _ in range(rng.randint(1, 3)):
                col = maker.column({c.name.lower() for c in cols}, "strict" in table_kinds)
                default = STRICT_DEFAULTS[col.strict_type] if col.strict_type else rng.choice(DEFAULTS)
                con.execute(f"ALTER TABLE {qid(name)} ADD COLUMN {maker.quote(col.name)}"
                            f"{maker.ws()}{col.decl} DEFAULT {default}")
                cols.append(col)
            kinds[name] = sorted(set(kinds[name]) | {"altered"})
            insert_rows(con, maker, name, cols, rng.randint(0, 3), explicit)
        if kind == "renamed":
            new = maker.fresh_name(taken, 0.5)
            con.execute(f"ALTER TABLE {qid(name)} RENAME TO {maker.quote(new)}")
            kinds[new] = kinds.pop(name)
            name = new
        if kind == "dropped_column":
            droppable = [c for c in cols if not c.key and not c.generated]
            try:
                con.execute(f"ALTER TABLE {qid(name)} DROP COLUMN {qid(droppable[0].name)}")
                cols.remove(droppable[0])
            except (IndexError, sqlite3.OperationalError):
                kinds[name].remove("dropped_column")
        if rows and rng.random() < 0.3:
            con.execute(f"DELETE FROM {qid(name)} WHERE length(CAST({qid(cols[0].name)} AS BLOB)) % 3 = "
                        f"{rng.randint(0, 2)}")
        made.append((name, cols))
    extras = {"indexes": 0, "views": 0, "triggers": 0, "fts": 0}
    for _ in range(rng.randint(0, 3)):
        name, cols = rng.choice(made)
        terms = [rng.choice([qid(c.name) + rng.choice(["", " DESC", " COLLATE NOCASE"]),
                             f"lower({qid(c.name)})", f"({qid(c.name)} || 'x, y')"])
                 for c in rng.sample(cols, min(len(cols), rng.randint(1, 2)))]
        where = f" WHERE {qid(cols[0].name)} IS NOT NULL" if rng.random() < 0.3 else ""
        try:
            con.execute(f"CREATE {rng.choice(['', 'UNIQUE '])}INDEX {qid(maker.fresh_name(taken, 0.5))} "
                        f"ON {qid(name)}({', '.join(terms)}){where}")
            extras["indexes"] += 1
        except sqlite3.IntegrityError:
            pass
    for _ in range(rng.randint(0, 2)):
        con.execute(f"CREATE VIEW {qid(maker.fresh_name(taken, 0.5))} AS SELECT * FROM "
                    f"{qid(rng.choice(made)[0])} WHERE 1 /* ; */")
        extras["views"] += 1
    for _ in range(rng.randint(0, 2)):
        con.execute(f"CREATE TRIGGER {qid(maker.fresh_name(taken, 0.5))} AFTER UPDATE ON "
                    f"{qid(rng.choice(made)[0])} BEGIN SELECT ';', 'END'; END")
        extras["triggers"] += 1
    if rng.random() < 0.2:
        fts = maker.fresh_name(taken, 0.3)
        con.execute(f"CREATE VIRTUAL TABLE {qid(fts)} USING fts5(title, body)")
        con.executemany(f"INSERT INTO {qid(fts)} VALUES (?, ?)",
                        [(maker.text(40), maker.text(400)) for _ in range(rng.randint(1, 20))])
        kinds[fts] = ["virtual"]
        kinds.update({f"{fts}_{s}": ["fts_shadow"] for s in ["data", "idx", "content", "docsize", "config"]})
        extras["fts"] = 1
    con.execute("DROP TABLE scratch")
    con.execute("COMMIT")
    if rng.random() < 0.4:
        con.execute("ANALYZE")
    if auto_vacuum == "incremental" and rng.random() < 0.5:
        con.execute("PRAGMA incremental_vacuum(1)")
    con.close()
    header = open(path, "rb").read(100)
    assert header[20] == reserved and header[56:60] == bytes([0, 0, 0, index % 3 + 1]), path
    assert struct.unpack(">H", header[16:18])[0] == page_size % 65536 + page_size // 65536, path
    return {"pageSize": page_size, "reservedBytes": reserved, "encoding": encoding,
            "autoVacuum": auto_vacuum, **extras}, kinds


# Reading the records back, to count what the file holds ----------------------------------------
SERIAL = {0: "null", 1: "int8", 2: "int16", 3: "int24", 4: "int32", 5: "int48", 6: "int64",
          7: "real", 8: "zero", 9: "one"}


def read_varint(buf, p):
    """The varint at p of buf: its value and where it ends."""
    v = 0
    for i in range(8):
        v = (v << 7) | (buf[p + i] & 0x7F)
        if buf[p + i] < 0x80:
            return v, p + i + 1
    return (v << 8) | buf[p + 8], p + 9


def local_size(payload, usable, index):
    """How much of a payload a leaf keeps on its page (index: an index or WITHOUT ROWID b-tree)."""
    most = (usable - 12) * 64 // 255 - 23 if index else usable - 35
    least = (usable - 12) * 32 // 255 - 23
    if payload <= most:
        return payload
    k = least + (payload - least) % (usable - 4)
    return k if k <= most else least


def record_stats(path, roots):
    """Walks each b-tree from its root and counts rows, stored values by serial-type class,
    overflowing cells and the pages of their chains, reading only record headers."""
    with open(path, "rb") as f, mmap.mmap(f.fileno(), 0, access=mmap.ACCESS_READ) as m:
        ps = struct.unpack(">H", m[16:18])[0]
        ps = 65536 if ps == 1 else ps
        usable = ps - m[20]
        u16 = lambda o: struct.unpack(">H", m[o:o + 2])[0]
        u32 = lambda o: struct.unpack(">I", m[o:o + 4])[0]
        varint = read_varint

        def prefix(start, size, local, need):
            buf, page = bytes(m[start:start + min(local, need)]), u32(start + local) if size > local else 0
            while len(buf) < need and page:
                base = (page - 1) * ps
                buf += m[base + 4:base + 4 + min(usable - 4, need - len(buf))]
                page = u32(base)
            return buf

        out = {}
        for name, root in roots:
            stats = {"rows": 0, "values": {}, "overflowCells": 0, "overflowPages": 0, "depth": 0}
            stack = [(root, 1)]
            while stack:
                page, depth = stack.pop()
                stats["depth"] = max(stats["depth"], depth)
                base = (page - 1) * ps
                hdr = base + (100 if page == 1 else 0)
                kind, cells = m[hdr], u16(hdr + 3)
                interior = kind in (2, 5)
                if interior:
                    stack.append((u32(hdr + 8), depth + 1))
                for k in range(cells):
                    p = base + u16(hdr + (12 if interior else 8) + 2 * k)
                    if interior:
                        stack.append((u32(p), depth + 1))
                        if kind == 5:
                            continue
                        p += 4
                    size, p = varint(m, p)
                    if kind == 13:
                        _, p = varint(m, p)
                    local = local_size(size, usable, kind != 13)
                    if size > local:
                        stats["overflowCells"] += 1
                        stats["overflowPages"] += -(-(size - local) // (usable - 4))
                    head = prefix(p, size, local, min(size, 9))
                    hlen, q = varint(head, 0) if head else (0, 0)
                    head = prefix(p, size, local, hlen)
                    while q < hlen:
                        t, q = varint(head, q)
                        c = SERIAL.get(t) or ("blob" if t % 2 == 0 else "text")
                        stats["values"][c] = stats["values"].get(c, 0) + 1
                    stats["rows"] += 1
            out[name] = stats
        return out


# Damaged copies ------------------------------------------------------------------------------------
def damage(rng, data, kind):
    """The bytes of a copy damaged in one of the ways the engine still reads (or, for
    count_valid_larger, refuses: the reader should then show the original's rows)."""
    data = bytearray(data)
    ps = struct.unpack(">H", data[16:18])[0]
    ps = 65536 if ps == 1 else ps
    pages = len(data) // ps
    put = lambda off, v: data.__setitem__(slice(off, off + 4), struct.pack(">I", v))
    stale = lambda: put(24, struct.unpack(">I", data[92:96])[0] + 1)
    trunk = struct.unpack(">I", data[32:36])[0]
    if kind.startswith("trailing_"):
        data += rng.randbytes(int(kind.split("_")[1]))
    elif kind == "count_zero":
        put(28, 0)
    elif kind == "count_stale_shorter":
        put(28, pages + 7)
        stale()
    elif kind == "count_stale_longer":
        put(28, pages - 1)
        stale()
    elif kind == "count_valid_smaller":
        data += rng.randbytes(2 * ps)
    elif kind == "count_valid_larger":
        put(28, pages + 5)
    elif kind == "freelist_head_past_end":
        put(32, pages + 1000)
    elif kind == "freelist_next_past_end":
        put((trunk - 1) * ps, pages + 1000)
    elif kind == "freelist_loop":
        put((trunk - 1) * ps, trunk)
    return bytes(data)


# Each damaged copy: its kind and the originals it is made from (any, those on 64 KiB pages,
# or those with a free list).
DAMAGE = [("trailing_16", "any"), ("trailing_16", "64k"), ("trailing_1", "any"),
          ("trailing_3000", "any"), ("count_zero", "any"), ("count_stale_shorter", "any"),
          ("count_stale_longer", "any"), ("count_valid_smaller", "any"), ("count_valid_larger", "any"),
          ("freelist_head_past_end", "free"), ("freelist_next_past_end", "free"), ("freelist_loop", "free")]


def engine_reads(path):
    try:
        con = sqlite3.connect(f"file:{path}?mode=ro", uri=True)
        for (name,) in con.execute("SELECT name FROM sqlite_master WHERE type='table' AND rootpage>0"):
            con.execute(f"SELECT * FROM {qid(name)}").fetchall()
        con.close()
        return True
    except sqlite3.DatabaseError:
        return False


# Past 4 GiB ----------------------------------------------------------------------------------------
def build_huge(path):
    """About 4.5 GB of zero blobs on 64 KiB pages, then a table made last, so its pages (and the
    overflow chain of its long row) lie past 4 GiB."""
    con = sqlite3.connect(path, isolation_level=None)
    for pragma in ["page_size=65536", "journal_mode=OFF", "synchronous=OFF", "secure_delete=OFF"]:
        con.execute("PRAGMA " + pragma)
    con.execute("CREATE TABLE filler(id INTEGER PRIMARY KEY, b BLOB)")
    for _ in range(5):
        con.execute("INSERT INTO filler(b) VALUES (zeroblob(900000000))")
    con.execute("CREATE TABLE tail(id INTEGER PRIMARY KEY, label TEXT, n INTEGER, r REAL, b BLOB)")
    con.executemany("INSERT INTO tail VALUES (?, ?, ?, ?, ?)", [
        (1, "past 4 GiB", 2**40 + 7, 0.25, b"\xde\xad\xbe\xef"),
        (2, "-8388608 and 2^63-1", -8388608, -1e300, bytes(range(16))),
        (3, "long " + "0123456789abcdef" * 20000, 2**63 - 1, -0.0, b"x" * 200000)])
    con.execute("INSERT INTO filler(b) VALUES (x'cafe')")
    con.close()
    return {"pageSize": 65536, "reservedBytes": 0, "encoding": "UTF-8", "autoVacuum": "none",
            "indexes": 0, "views": 0, "triggers": 0, "fts": 0}, {"filler": ["huge"], "tail": ["past_4gib"]}


# The manifest ------------------------------------------------------------------------------------
def describe(path, info, kinds):
    con = sqlite3.connect(f"file:{path}?mode=ro", uri=True)
    tables = [("sqlite_master", 1)] + con.execute(
        "SELECT name, rootpage FROM sqlite_master WHERE type='table' ORDER BY rowid").fetchall()
    roots = [(n, r) for n, r in tables if r and "huge" not in kinds.get(n, [])]
    stats = record_stats(path, roots)
    entries, values = [], {}
    for name, root in tables:
        columns = con.execute("SELECT name, type, hidden FROM pragma_table_xinfo(?)", (name,)).fetchall()
        rows = con.execute(f"SELECT count(*) FROM {qid(name)}").fetchone()[0]
        named = ["empty_name"] if name == "" else ["dash_name"] if name.startswith("-") else []
        entry = {"name": name, "rootPage": root, "rows": rows, "columns": len(columns),
                 "kinds": (kinds.get(name) or (["schema"] if root == 1 else ["system"])) + named,
                 "affinities": sorted({affinity(t) for _, t, h in columns})}
        if name in stats:
            s = stats[name]
            assert s["rows"] == rows, (path, name, s["rows"], rows)
            entry.update({k: s[k] for k in ("values", "overflowCells", "overflowPages", "depth")})
            for k, v in s["values"].items():
                values[k] = values.get(k, 0) + v
        else:
            entry["compareRows"] = False
        entries.append(entry)
    header = open(path, "rb").read(100)
    info.update({"pages": os.path.getsize(path) // info["pageSize"],
                 "freelistPages": struct.unpack(">I", header[36:40])[0],
                 "bytes": os.path.getsize(path), "tables": entries, "values": dict(sorted(values.items()))})
    con.close()
    return info


def tally(databases):
    counts = {"databases": len(databases), "damaged": 0, "tables": 0, "rows": 0, "values": {},
              "pageSizes": {}, "encodings": {}, "autoVacuum": {}, "reservedBytes": {},
              "damageKinds": {}, "tableKinds": {}, "affinities": {}, "overflowCells": 0}
    bump = lambda key, k, n=1: counts[key].__setitem__(str(k), counts[key].get(str(k), 0) + n)
    for db in databases:
        for key, field in [("pageSizes", "pageSize"), ("encodings", "encoding"),
                           ("autoVacuum", "autoVacuum"), ("reservedBytes", "reservedBytes")]:
            bump(key, db[field])
        if db.get("damage"):
            counts["damaged"] += 1
            bump("damageKinds", db["damage"]["kind"])
            continue
        for t in db["tables"]:
            counts["tables"] += 1
            counts["rows"] += t["rows"]
            counts["overflowCells"] += t.get("overflowCells", 0)
            for k in t["kinds"]:
                bump("tableKinds", k)
            for a in t["affinities"]:
                bump("affinities", a)
        for k, v in db["values"].items():
            bump("values", k, v)
    for key in counts:
        if isinstance(counts[key], dict):
            counts[key] = dict(sorted(counts[key].items()))
    return counts


def uncovered(counts):
    """What the run was meant to cover and did not (a run with a small --count misses some)."""
    want = {"pageSizes": [str(p) for p in PAGE_SIZES], "encodings": ENCODINGS,
            "autoVacuum": AUTO_VACUUM, "damageKinds": [k for k, _ in DAMAGE],
            "tableKinds": TABLE_KINDS + ["empty_name", "dash_name", "generated_stored",
                                         "generated_virtual", "fts_shadow", "system"],
            "values": list(SERIAL.values()) + ["text", "blob"],
            "affinities": ["INTEGER", "TEXT", "BLOB", "REAL", "NUMERIC"]}
    missing = [f"{key}:{k}" for key, ks in want.items() for k in ks if k not in counts[key]]
    if not any(k != "0" for k in counts["reservedBytes"]):
        missing.append("reservedBytes:non-zero")
    return missing + ([] if counts["overflowCells"] else ["overflowCells"])


def generate(out, seed=1, count=32, huge=False):
    os.makedirs(out, exist_ok=True)
    old = os.path.join(out, "manifest.json")
    if os.path.exists(old):
        for db in json.load(open(old))["databases"]:
            if os.path.exists(os.path.join(out, db["file"])):
                os.remove(os.path.join(out, db["file"]))
    rng = random.Random(seed)
    maker = Maker(rng)
    databases = []
    for i in range(count):
        path = os.path.join(out, f"v{i:03d}.db")
        for leftover in (path, path + "-journal"):
            if os.path.exists(leftover):
                os.remove(leftover)
        info, kinds = build_database(path, maker, i)
        databases.append(describe(path, {"file": os.path.basename(path), **info}, kinds))
    pools = {"any": list(databases), "64k": [d for d in databases if d["pageSize"] == 65536],
             "free": [d for d in databases if d["freelistPages"] and d["autoVacuum"] != "full"]}
    for n, (kind, pool) in enumerate(DAMAGE):
        if not pools[pool]:
            continue
        source = rng.choice(pools[pool])
        file = source["file"].replace(".db", f".d{n:02d}-{kind}.db")
        path = os.path.join(out, file)
        with open(path, "wb") as f:
            f.write(damage(rng, open(os.path.join(out, source["file"]), "rb").read(), kind))
        databases.append({**source, "file": file, "bytes": os.path.getsize(path), "damage": {
            "kind": kind, "original": source["file"], "engineReads": engine_reads(path)}})
    if huge:
        path = os.path.join(out, "huge.db")
        if os.path.exists(path):
            os.remove(path)
        info, kinds = build_huge(path)
        databases.append(describe(path, {"file": "huge.db", **info}, kinds))
    for db in databases:
        db["sha256"] = hashlib.sha256(open(os.path.join(out, db["file"]), "rb").read()).hexdigest() \
            if db["bytes"] < 2**30 else None
    counts = tally(databases)
    missing = uncovered(counts)
    source = hashlib.sha256(open(__file__, "rb").read()).hexdigest()
    manifest = {"generator": {"seed": seed, "count": count, "huge": huge, "source": source,
                              "sqlite": sqlite3.sqlite_version},
                "counts": counts, "uncovered": missing, "databases": databases}
    with open(old, "w", encoding="utf-8") as f:
        json.dump(manifest, f, indent=1, ensure_ascii=False)
    if missing:
        print("not covered with this seed and count: " + ", ".join(missing), file=sys.stderr)
    return manifest


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("out")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=32)
    parser.add_argument("--huge", action="store_true", help="also one database past 4 GiB")
    args = parser.parse_args()
    c = generate(args.out, args.seed, args.count, args.huge)["counts"]
    print(f"{c['databases']} databases ({c['damaged']} damaged copies), {c['tables']} tables, "
          f"{c['rows']} rows, {sum(c['values'].values())} stored values: "
          + ", ".join(f"{k} {v}" for k, v in c["values"].items()))


if __name__ == "__main__":
    main()
