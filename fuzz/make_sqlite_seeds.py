#!/usr/bin/env python3
"""Makes the small SQLite databases under fuzz/seeds/sqlite/.

They seed the fuzz_sqlite target and are the intact originals from which the reader's tests
derive their damaged databases, so they are kept in the repository as made (remaking them
with another SQLite library may change their bytes, and with them the recorded digests).
Each one exercises a different layout: page sizes from 512 to 4096, the three text encodings,
interior pages, overflow chains, freeblocks, free-list trunks and leaves, pointer-map pages,
an index and a table without rowid.

    python3 fuzz/make_sqlite_seeds.py [FOLDER]
"""
import os
import random
import sqlite3
import sys

folder = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "seeds", "sqlite")
os.makedirs(folder, exist_ok=True)


def make(name, pragmas, script):
    path = os.path.join(folder, name)
    for suffix in ("", "-journal", "-wal", "-shm"):
        if os.path.exists(path + suffix):
            os.remove(path + suffix)
    db = sqlite3.connect(path, isolation_level=None)
    db.executescript(pragmas + "PRAGMA journal_mode=DELETE; PRAGMA secure_delete=OFF;")
    script(db, random.Random(name))
    db.close()
    print(name, os.path.getsize(path))


def text(rng, n):
    alphabet = "abcdefghijklmnopqrstuvwxyz      ,.ÄéüßЖ中文🙂"
    return "".join(rng.choice(alphabet) for _ in range(n))


def chat(db, rng):
    db.executescript("""
        CREATE TABLE contact (id INTEGER PRIMARY KEY, name TEXT, phone TEXT);
        CREATE TABLE message (id INTEGER PRIMARY KEY, chat_id INTEGER, sender TEXT, body TEXT,
                              sent_at INTEGER, is_from_me INTEGER);
        CREATE INDEX message_chat ON message(chat_id);
        CREATE TABLE old (id INTEGER PRIMARY KEY, note TEXT);
    """)
    db.execute("BEGIN")
    for i in range(1, 9):
        db.execute("INSERT INTO contact VALUES (?, ?, ?)", (i, text(rng, 12), "+44 7700 9%05d" % i))
    for i in range(1, 121):
        n = rng.choice([3, 20, 60, 150, 400, 1500]) if i % 17 else 3000
        db.execute("INSERT INTO message VALUES (?, ?, ?, ?, ?, ?)",
                   (i, i % 5, None if i % 3 == 0 else "+44 7700 9%05d" % (i % 8), text(rng, n),
                    700000000 + i * 97, i % 3 == 0))
    for i in range(1, 81):
        db.execute("INSERT INTO old VALUES (?, ?)", (i, "archived note %d %s" % (i, text(rng, 30))))
    db.execute("COMMIT")
    for i in (5, 17, 40, 41, 77, 103):
        db.execute("DELETE FROM message WHERE id = ?", (i,))
    db.execute("DELETE FROM contact WHERE id = 4")
    db.execute("DROP TABLE old")


def deep(db, rng):
    db.executescript("""
        CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT, c REAL, d BLOB);
        CREATE TABLE pairs (k TEXT, v, PRIMARY KEY (k)) WITHOUT ROWID;
    """)
    db.execute("BEGIN")
    for i in range(1, 401):
        db.execute("INSERT INTO t VALUES (?, ?, ?, ?)",
                   (i * 3, text(rng, rng.choice([1, 10, 40, 90])), i / 7.0, bytes(rng.randrange(256) for _ in range(i % 9))))
    for i in range(40):
        db.execute("INSERT INTO pairs VALUES (?, ?)", ("key%03d" % i, i * i))
    db.execute("COMMIT")
    for i in range(5, 1200, 37):
        db.execute("DELETE FROM t WHERE a = ?", (i,))


def numbers(db, rng):
    db.execute("CREATE TABLE n (id INTEGER PRIMARY KEY, v, w TEXT, x BLOB)")
    values = [0, 1, -1, 127, -128, 300, -32768, 8388607, -8388608, 2147483647, -2147483648,
              140737488355327, -140737488355328, 2 ** 62, -2 ** 63, 1.5, -0.0, 1e300, None]
    db.execute("BEGIN")
    for i, v in enumerate(values * 3):
        db.execute("INSERT INTO n (v, w, x) VALUES (?, ?, ?)",
                   (v, text(rng, (i * 37) % 700) if i % 4 else None, bytes(range(i % 256)) * (1 + i % 5)))
    db.execute("COMMIT")
    db.execute("DELETE FROM n WHERE id % 4 = 1")


def tiny(db, rng):
    db.executescript("CREATE TABLE t (x); INSERT INTO t VALUES ('one'), (2), (x'03');")


def vacuumed(db, rng):
    db.execute("CREATE TABLE log (id INTEGER PRIMARY KEY, line TEXT)")
    db.execute("BEGIN")
    for i in range(1, 200):
        db.execute("INSERT INTO log VALUES (?, ?)", (i, text(rng, 60 + i % 200)))
    db.execute("COMMIT")
    db.execute("DELETE FROM log WHERE id % 3 = 0")


make("chat-1024.db", "PRAGMA page_size=1024; PRAGMA auto_vacuum=NONE;", chat)
make("deep-512-utf16le.db", "PRAGMA page_size=512; PRAGMA encoding='UTF-16le';", deep)
make("numbers-2048-utf16be.db", "PRAGMA page_size=2048; PRAGMA encoding='UTF-16be';", numbers)
make("tiny-512.db", "PRAGMA page_size=512;", tiny)
make("autovacuum-1024.db", "PRAGMA page_size=1024; PRAGMA auto_vacuum=FULL;", vacuumed)


# Seeds of fuzz_sqlite_log: a database and its write-ahead log, and a database and the hot
# journal of a transaction that never finished, each copied while its writer was open. An input
# is the database's length (4 bytes, little-endian), the database, then the log or journal.
import shutil
import struct
import tempfile

log_folder = os.path.join(os.path.dirname(folder), "sqlite_log")
os.makedirs(log_folder, exist_ok=True)
for kind in ("wal", "journal"):
    with tempfile.TemporaryDirectory() as scratch:
        path = os.path.join(scratch, "db")
        db = sqlite3.connect(path, isolation_level=None)
        db.executescript("PRAGMA page_size=512; PRAGMA cache_size=2; PRAGMA secure_delete=OFF; "
                         "PRAGMA journal_mode=%s; PRAGMA wal_autocheckpoint=0; "
                         "CREATE TABLE m (id INTEGER PRIMARY KEY, body TEXT, n INTEGER);" % ("WAL" if kind == "wal" else "DELETE"))
        db.execute("BEGIN")
        for i in range(1, 41):
            db.execute("INSERT INTO m VALUES (?, ?, ?)", (i, "message %d %s" % (i, "x" * (i % 30)), i * 1000))
        db.execute("COMMIT")
        if kind == "wal":
            db.execute("PRAGMA wal_checkpoint(TRUNCATE)")
            db.execute("DELETE FROM m WHERE id % 3 = 0")
            db.execute("UPDATE m SET body = 'edited' WHERE id = 5")
        else:
            db.execute("BEGIN")
            db.execute("DELETE FROM m WHERE id % 3 = 0")
        main = open(path, "rb").read()
        side = open(path + ("-wal" if kind == "wal" else "-journal"), "rb").read()
        db.close()
    out = os.path.join(log_folder, kind + ".bin")
    open(out, "wb").write(struct.pack("<I", len(main)) + main + side)
    print(out, os.path.getsize(out))

# Seeds of fuzz_sqlite_recovery: the small databases with deleted rows.
recovery_folder = os.path.join(os.path.dirname(folder), "sqlite_recovery")
os.makedirs(recovery_folder, exist_ok=True)
for name in ("chat-1024.db", "deep-512-utf16le.db"):
    shutil.copyfile(os.path.join(folder, name), os.path.join(recovery_folder, name))
