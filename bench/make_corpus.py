#!/usr/bin/env python3
"""Makes chat databases for measuring the page reader and the recovery of deleted rows.

Every output is a pure function of the arguments: one random.Random(seed) per corpus, no clock,
no OS randomness, no reliance on hash order. The same SQLite library writes the same bytes.

    make_corpus.py bench    OUT [--messages N] [--seed S]
        A large store (about 300 MB with the default N): contacts, messages and attachments;
        then 10% of the messages are deleted and the attachment table is emptied.
        Writes OUT.truth.json: deleted_message_ids (sorted), emptied_table, messages,
        live_messages, seed, page_size.

    make_corpus.py recovery OUT [--messages 50000] [--seed S]
        A store edited the way a chat application edits it: 10% of the messages deleted in
        many small transactions (1 to 5 rows each, random order), mixed with a few new
        messages and a few edited bodies; then the attachment table is emptied.
        Writes OUT.truth.json with the full deleted rows (format below).

    make_corpus.py wal      OUT [--base 20000] [--added 3000] [--deleted 1500] [--seed S]
        A write-ahead-log pair as found on a device: OUT holds the checkpointed base, OUT-wal
        the later inserts and deletes, copied while the writer still had the database open.
        The engine draws the log's two salts from the OS; the copy gets seeded salts and
        recomputed checksums instead, and a scratch copy of the pair is opened to confirm that
        it still reads exactly as the writer saw it.

All databases: 4096-byte pages, secure_delete off, auto_vacuum none.

Truth files (JSON). Rows are lists in declared column order; the INTEGER PRIMARY KEY column
holds the true id (the record itself stores NULL there); blobs are base64 text; rows are
sorted by id.
  recovery, wal: seed, page_size, columns{table: [names]}, types{table: [declared types]},
    rowid_column{table: name}, deleted{table: [rows]}, deleted_overflow{table: [bool per
    deleted row: record payload > 4061 bytes, i.e. part of it went to overflow pages]},
    live{message: [rows]}.
  recovery adds: messages, emptied_table, live_message_ids, superseded{message: [rows]}
    (earlier versions of the edited messages).
  wal adds: base_messages, added_messages, wal_frames, live_rows_seen_by (how the live rows
    were read).
"""
import argparse
import base64
import json
import os
import shutil
import sqlite3
import struct
import sys
import tempfile
import time
from array import array
from random import Random

PAGE_SIZE = 4096
MAX_LOCAL = PAGE_SIZE - 35  # largest payload a table leaf keeps on the page

SCHEMA = """
CREATE TABLE contact (id INTEGER PRIMARY KEY, name TEXT, phone TEXT, note TEXT);
CREATE TABLE message (id INTEGER PRIMARY KEY, guid TEXT, chat_id INTEGER, date INTEGER, sender TEXT, body TEXT, is_from_me INTEGER);
CREATE INDEX message_chat ON message(chat_id, date);
CREATE TABLE attachment (id INTEGER PRIMARY KEY, message_id INTEGER, path TEXT, size INTEGER, data BLOB);
"""
TABLES = {
    "contact": (["id", "name", "phone", "note"], ["INTEGER", "TEXT", "TEXT", "TEXT"]),
    "message": (["id", "guid", "chat_id", "date", "sender", "body", "is_from_me"],
                ["INTEGER", "TEXT", "INTEGER", "INTEGER", "TEXT", "TEXT", "INTEGER"]),
    "attachment": (["id", "message_id", "path", "size", "data"], ["INTEGER", "INTEGER", "TEXT", "INTEGER", "BLOB"]),
}
MESSAGE_COLS = ", ".join(TABLES["message"][0])
INSERT_MESSAGE = "INSERT INTO message VALUES (?, ?, ?, ?, ?, ?, ?)"
INSERT_ATTACHMENT = "INSERT INTO attachment VALUES (?, ?, ?, ?, ?)"

WORDS = """
the a to and I you it is that of in for on my me we be so just have not are at was do can
what get if with this all but no your like out up go know one will there how now about
when they see good time back yes home tonight tomorrow today later soon morning evening
week weekend friday saturday sunday monday call text send sent photo pictures link address
meet meeting lunch dinner coffee train bus car late early sorry thanks thank great sure
okay fine love miss need want think really still already again maybe probably actually
work office project deadline client review draft file files folder version update email
party birthday present cake kids school pick drop doctor appointment flight hotel booked
ticket tickets price money pay paid invoice account bank transfer rent landlord keys door
parking weather rain sunny cold hot beach walk run gym match game score team won lost
movie show episode watch watched book read music concert band playlist song new old last
next first right left here where who why which because then than just only very much many
little big long short nice happy tired busy free ready done finished started leaving
arrived waiting coming going staying outside inside near far minutes hours days
""".split()
SHORT_REPLIES = ["ok", "Ok!", "k", "yes", "no", "Sure", "thanks!", "lol", "haha", "on my way",
                 "call you later", "\U0001F44D", "\U0001F602", "\u2764\ufe0f", "see you", "omw",
                 "Yes!", "np", "brb", "Good night"]
INTL_TOKENS = [
    "café", "naïve", "über", "señor", "déjà vu", "Grüße", "smörgåsbord", "crème brûlée",
    "façade", "jalapeño", "São Paulo", "Zürich", "Ångström", "résumé", "piñata", "mañana",
    "Dziękuję", "Tschüss", "Ça va ?", "¿Qué tal?", "Straße", "Ærø", "Łódź", "Ελλάδα",
    "Привет, как дела?", "спасибо", "明天见", "好的，没问题", "谢谢你", "我们几点见面？", "今日は雨です",
    "ありがとう", "また後で", "안녕하세요", "고마워요", "مرحبا", "שלום", "नमस्ते",
    "\U0001F600", "\U0001F44D", "\U0001F389", "\u2764\ufe0f", "\U0001F602", "\U0001F64F",
    "\U0001F60D", "\U0001F525", "\U0001F937\u200d\u2642\ufe0f", "\U0001F468\u200d\U0001F469\u200d\U0001F467",
]
FIRST = ["Lena", "Tomás", "Priya", "Oskar", "Mei", "Jonas", "Amélie", "Kofi", "Sara", "Mateo",
         "Ingrid", "Yusuf", "Chloé", "Dmitri", "Aiko", "Noah", "Zoë", "Rafael", "Hana", "Liam",
         "Björn", "Fatima", "Lucas", "Ana", "Kenji", "Olga", "Emil", "Nadia", "Pedro", "Ruth"]
LAST = ["Marsh", "Reyes", "Natarajan", "Lind", "Chen", "Weber", "Dubois", "Mensah", "Costa",
        "Novak", "Haddad", "Okafor", "Müller", "Ivanova", "Tanaka", "Brennan", "García", "Kowalski",
        "Nakamura", "Svensson", "Rossi", "Petrov", "Silva", "Park", "Hughes", "Moreau", "Jensen"]
NOTES = ["work", "flatmate", "climbing on Thursdays", "dentist", "school run", "neighbour",
         "plumber", "book club", "cousin", "landlord", "design team", "football", "old phone"]
DOMAINS = ["example.com", "example.org", "example.net", "mail.example.com"]
FILE_KINDS = [("IMG_{:04d}.jpeg", b"\xff\xd8\xff\xe0"), ("IMG_{:04d}.heic", b"\x00\x00\x00\x18ftypheic"),
              ("VID_{:04d}.mov", b"\x00\x00\x00\x14ftypqt  "), ("voice-{:04d}.m4a", b"\x00\x00\x00\x1cftypM4A "),
              ("document-{:04d}.pdf", b"%PDF-1.4\n"), ("sticker-{:04d}.png", b"\x89PNG\r\n\x1a\n")]


class ChatGen:
    """Draws contacts, messages and attachments from one random stream."""

    def __init__(self, rng, messages, chats=300, contacts=500):
        self.rng = rng
        self.text = self._corpus(1_000_000, intl=False)
        self.intl = self._corpus(200_000, intl=True)
        self.contacts = []
        handles = []
        for cid in range(1, contacts + 1):
            name = f"{rng.choice(FIRST)} {rng.choice(LAST)}"
            phone = f"+{rng.choice([1, 33, 34, 44, 46, 49, 81, 86, 91])} {rng.randrange(100, 1000)} " \
                    f"{rng.randrange(100, 1000)} {rng.randrange(1000, 10000)}"
            note = rng.choice(NOTES) if rng.random() < 0.4 else None
            self.contacts.append((cid, name, phone, note))
            if rng.random() < 0.3:
                user = name.lower().replace(" ", rng.choice([".", "_", ""]))
                handles.append(f"{user}{rng.randrange(100) if rng.random() < 0.5 else ''}@{rng.choice(DOMAINS)}")
            else:
                handles.append(phone.replace(" ", ""))
        self.chats = []  # participants (sender handles) per chat, chat_id = index + 1
        for _ in range(chats):
            n = 1 if rng.random() < 0.8 else rng.randrange(2, 7)
            self.chats.append([rng.choice(handles) for _ in range(n)])
        self.date = 700_000_000 + rng.randrange(86_400)
        self.gap = 100_000_000 / max(messages, 1) / 1.98  # spreads N messages over ~1e8 s
        self.picture = 0

    def _corpus(self, size, intl):
        rng, parts, n = self.rng, [], 0
        while n < size:
            words = []
            for i in range(rng.randrange(3, 19)):
                w = rng.choice(INTL_TOKENS) if intl and rng.random() < 0.45 else rng.choice(WORDS)
                if rng.random() < 0.06:
                    w += ","
                words.append(w)
            words[0] = words[0][:1].upper() + words[0][1:]
            sentence = " ".join(words).rstrip(",") + rng.choice([".", ".", ".", "?", "!", "", " :)"])
            parts.append(sentence)
            n += len(sentence) + 1
        return " ".join(parts) + " "

    def body(self):
        rng = self.rng
        r = rng.random()
        if r < 0.02:
            return None
        if r < 0.07:
            return rng.choice(SHORT_REPLIES)
        if r < 0.88:
            length = 5 + int(rng.betavariate(1.5, 2.5) * 115)
        elif r < 0.99:
            length = int(120 * 25 ** rng.random())  # 120 .. 3000
        else:
            length = 4120 + int(15_880 * rng.random() ** 2)  # overflows a 4 KiB page
        src = self.intl if rng.random() < 0.03 else self.text
        start = src.find(" ", rng.randrange(len(src) - length - 64)) + 1
        text = src[start:start + length]
        if not src.startswith(" ", start + length) and " " in text:
            text = text[:text.rfind(" ")]  # end on a whole word
        return text.strip() or "ok"

    def message(self, mid):
        rng = self.rng
        self.date += max(1, int(rng.expovariate(1.0 / self.gap) * (50 if rng.random() < 0.02 else 1)))
        chat = 1 + int(len(self.chats) * rng.random() ** 3)
        me = 1 if rng.random() < 0.45 else 0
        sender = None if me else rng.choice(self.chats[chat - 1])
        g = f"{rng.getrandbits(128):032X}"
        guid = f"{g[:8]}-{g[8:12]}-{g[12:16]}-{g[16:20]}-{g[20:]}"
        return (mid, guid, chat, self.date, sender, self.body(), me)

    def attachment(self, aid, message_id):
        rng = self.rng
        self.picture += rng.randrange(1, 4)
        pattern, magic = rng.choice(FILE_KINDS)
        d = f"{rng.getrandbits(16):04x}"
        path = f"attachments/{d[:2]}/{d[2:]}/" + pattern.format(self.picture % 10_000)
        data = None if rng.random() < 0.12 else magic + rng.randbytes(int(200 * 30 ** rng.random()))
        size = (len(data) if data else 0) + rng.randrange(20_000, 4_000_000)
        return (aid, message_id, path, size, data)


def varint_len(v):
    n = 1
    while v >= 0x80 and n < 9:
        v >>= 7
        n += 1
    return n


def payload_size(row):
    """Record payload of a table row whose first column is the INTEGER PRIMARY KEY (stored NULL)."""
    header, content = 0, 0
    for i, v in enumerate(row):
        if i == 0 or v is None:
            t, n = 0, 0
        elif isinstance(v, int):
            if v in (0, 1):
                t, n = 8, 0
            else:
                n = next(size for size in (1, 2, 3, 4, 6, 8) if -(1 << (8 * size - 1)) <= v < 1 << (8 * size - 1))
                t = {1: 1, 2: 2, 3: 3, 4: 4, 6: 5, 8: 6}[n]
        elif isinstance(v, float):
            t, n = 7, 8
        elif isinstance(v, str):
            n = len(v.encode("utf-8"))
            t = 13 + 2 * n
        else:
            n = len(v)
            t = 12 + 2 * n
        header += varint_len(t)
        content += n
    own = 1  # the header starts with its own length
    while varint_len(header + own) > own:
        own += 1
    return header + own + content


def json_row(row):
    return [base64.b64encode(v).decode("ascii") if isinstance(v, bytes) else v for v in row]


def fresh(path):
    for p in (path, path + "-wal", path + "-shm", path + "-journal"):
        if os.path.lexists(p):
            os.remove(p)


def open_db(path, journal="DELETE"):
    fresh(path)
    db = sqlite3.connect(path, isolation_level=None)
    db.executescript(f"""
        PRAGMA page_size = {PAGE_SIZE};
        PRAGMA secure_delete = OFF;
        PRAGMA auto_vacuum = NONE;
        PRAGMA journal_mode = {journal};
        PRAGMA synchronous = OFF;
        PRAGMA cache_size = -65536;
    """)
    assert db.execute("PRAGMA secure_delete").fetchone()[0] == 0
    db.executescript(SCHEMA)
    return db


def load(db, gen, messages, attachments_per_message, chunk=20_000):
    """Inserts contacts, then messages with their attachments, one transaction per chunk."""
    db.execute("BEGIN")
    db.executemany("INSERT INTO contact VALUES (?, ?, ?, ?)", gen.contacts)
    db.execute("COMMIT")
    aid = 0
    for first in range(1, messages + 1, chunk):
        last = min(messages, first + chunk - 1)
        db.execute("BEGIN")
        db.executemany(INSERT_MESSAGE, (gen.message(m) for m in range(first, last + 1)))
        k = round((last - first + 1) * attachments_per_message)
        owners = sorted(gen.rng.randrange(first, last + 1) for _ in range(k))
        db.executemany(INSERT_ATTACHMENT, (gen.attachment(aid + i + 1, m) for i, m in enumerate(owners)))
        aid += k
        db.execute("COMMIT")


def write_truth(out, truth):
    with open(out + ".truth.json", "w", encoding="utf-8") as f:
        json.dump(truth, f, ensure_ascii=False, separators=(",", ":"))
        f.write("\n")


def schema_truth(seed, tables):
    return {"seed": seed, "page_size": PAGE_SIZE,
            "columns": {t: TABLES[t][0] for t in tables}, "types": {t: TABLES[t][1] for t in tables},
            "rowid_column": {t: "id" for t in tables}}


def cmd_bench(a):
    rng = Random(a.seed)
    gen = ChatGen(rng, a.messages)
    db = open_db(a.out)
    load(db, gen, a.messages, 1 / 20)
    doomed = rng.sample(range(1, a.messages + 1), a.messages // 10)
    for i in range(0, len(doomed), 500):
        db.execute("BEGIN")
        db.executemany("DELETE FROM message WHERE id = ?", ((m,) for m in doomed[i:i + 500]))
        db.execute("COMMIT")
    db.execute("DELETE FROM attachment")
    live = db.execute("SELECT count(*) FROM message").fetchone()[0]
    db.close()
    write_truth(a.out, {"deleted_message_ids": sorted(doomed), "emptied_table": "attachment",
                        "messages": a.messages, "live_messages": live, "seed": a.seed, "page_size": PAGE_SIZE})
    return f"{a.messages} messages ({live} live)"


def cmd_recovery(a):
    rng = Random(a.seed)
    gen = ChatGen(rng, a.messages)
    db = open_db(a.out)
    load(db, gen, a.messages, 1 / 20, chunk=5_000)
    n = a.messages
    doomed = rng.sample(range(1, n + 1), n // 10)
    doomed_set = set(doomed)
    edited = rng.sample([m for m in range(1, n + 1) if m not in doomed_set], n // 100)
    ops = [("d", m) for m in doomed] + [("u", m) for m in edited] + [("i", 0)] * (n // 100)
    rng.shuffle(ops)
    select = f"SELECT {MESSAGE_COLS} FROM message WHERE id = ?"
    deleted, superseded = [], []
    i = 0
    while i < len(ops):
        step = rng.randint(1, 5)
        db.execute("BEGIN")
        for op, m in ops[i:i + step]:
            if op == "d":
                deleted.append(db.execute(select, (m,)).fetchone())
                db.execute("DELETE FROM message WHERE id = ?", (m,))
            elif op == "u":
                superseded.append(db.execute(select, (m,)).fetchone())
                db.execute("UPDATE message SET body = ? WHERE id = ?", (gen.body(), m))
            else:
                db.execute(INSERT_MESSAGE, (None,) + gen.message(None)[1:])
        db.execute("COMMIT")
        i += step
    gone_attachments = db.execute("SELECT * FROM attachment ORDER BY id").fetchall()
    db.execute("DELETE FROM attachment")
    live = db.execute(f"SELECT {MESSAGE_COLS} FROM message ORDER BY id").fetchall()
    db.close()
    deleted.sort()
    truth = schema_truth(a.seed, ["contact", "message", "attachment"])
    truth.update({
        "messages": n, "emptied_table": "attachment",
        "deleted": {"message": [json_row(r) for r in deleted], "attachment": [json_row(r) for r in gone_attachments]},
        "deleted_overflow": {"message": [payload_size(r) > MAX_LOCAL for r in deleted],
                             "attachment": [payload_size(r) > MAX_LOCAL for r in gone_attachments]},
        "live_message_ids": [r[0] for r in live],
        "live": {"message": [json_row(r) for r in live]},
        "superseded": {"message": [json_row(r) for r in sorted(superseded)]},
    })
    write_truth(a.out, truth)
    over = sum(truth["deleted_overflow"]["message"])
    return (f"{n} messages, {len(deleted)} deleted ({over} overflowing), {len(edited)} edited, "
            f"{len(live)} live; {len(gone_attachments)} attachments emptied")


# Write-ahead log: 32-byte header (magic, version, page size, checkpoint sequence, salt-1,
# salt-2, checksum), then frames of a 24-byte header (page, size after commit, salt-1, salt-2,
# checksum) and one page. The checksum runs over the header and then over every frame (its
# first 8 bytes and the page), each frame continuing from the previous one.
def wal_checksum(data, s0, s1, big_endian):
    words = array("I", data)
    if big_endian != (sys.byteorder == "big"):
        words.byteswap()
    it = iter(words)
    for x0, x1 in zip(it, it):
        s0 = (s0 + x0 + s1) & 0xFFFFFFFF
        s1 = (s1 + x1 + s0) & 0xFFFFFFFF
    return s0, s1


def rewrite_wal_salts(path, salt1, salt2):
    """The engine draws the log's salts from the OS; set them from the seed instead and redo the
    checksums, so that the log is a function of the arguments. Returns the frame count."""
    with open(path, "rb") as f:
        wal = bytearray(f.read())
    magic, _, page_size, _, old1, old2 = struct.unpack(">6I", wal[:24])
    assert magic in (0x377F0682, 0x377F0683), "not a write-ahead log"
    big = magic == 0x377F0683
    frame = 24 + page_size
    frames = (len(wal) - 32) // frame
    assert 32 + frames * frame == len(wal), "log ends inside a frame"
    for new in (False, True):
        if new:
            struct.pack_into(">2I", wal, 16, salt1, salt2)
        s = wal_checksum(wal[:24], 0, 0, big)
        if new:
            struct.pack_into(">2I", wal, 24, *s)
        else:
            assert s == struct.unpack(">2I", wal[24:32]), "bad header checksum"
        for k in range(frames):
            at = 32 + k * frame
            if new:
                struct.pack_into(">2I", wal, at + 8, salt1, salt2)
            else:
                assert struct.unpack(">2I", wal[at + 8:at + 16]) == (old1, old2), "frame from an older log"
            s = wal_checksum(wal[at:at + 8] + wal[at + 24:at + frame], s[0], s[1], big)
            if new:
                struct.pack_into(">2I", wal, at + 16, *s)
            else:
                assert s == struct.unpack(">2I", wal[at + 16:at + 24]), f"bad checksum in frame {k + 1}"
    with open(path, "wb") as f:
        f.write(wal)
    return frames


def cmd_wal(a):
    rng = Random(a.seed)
    gen = ChatGen(rng, a.base + a.added)
    work = a.out + ".writing"
    db = open_db(work, journal="WAL")
    db.execute("PRAGMA wal_autocheckpoint = 0")
    load(db, gen, a.base, 1 / 20, chunk=5_000)
    db.execute("PRAGMA wal_checkpoint(TRUNCATE)")
    assert os.path.getsize(work + "-wal") == 0
    # Inserts and deletes interleaved, 1 to 5 per transaction; a message added in the log may
    # be deleted once it exists.
    doomed = rng.sample(range(1, a.base + a.added + 1), a.deleted)
    waiting = sorted(m for m in doomed if m > a.base)
    ready = [m for m in doomed if m <= a.base]
    next_id, ops = a.base + 1, []
    while next_id <= a.base + a.added or ready or waiting:
        inserts_left = a.base + a.added - next_id + 1
        if inserts_left and (not ready or rng.random() < inserts_left / (inserts_left + len(ready) + len(waiting))):
            ops.append(("i", next_id))
            while waiting and waiting[0] == next_id:
                ready.insert(rng.randrange(len(ready) + 1), waiting.pop(0))
            next_id += 1
        else:
            ops.append(("d", ready.pop()))
    select = f"SELECT {MESSAGE_COLS} FROM message WHERE id = ?"
    deleted, i = [], 0
    while i < len(ops):
        step = rng.randint(1, 5)
        db.execute("BEGIN")
        for op, m in ops[i:i + step]:
            if op == "i":
                db.execute(INSERT_MESSAGE, gen.message(m))
            else:
                deleted.append(db.execute(select, (m,)).fetchone())
                db.execute("DELETE FROM message WHERE id = ?", (m,))
        db.execute("COMMIT")
        i += step
    live = db.execute(f"SELECT {MESSAGE_COLS} FROM message ORDER BY id").fetchall()
    fresh(a.out)
    shutil.copyfile(work, a.out)
    shutil.copyfile(work + "-wal", a.out + "-wal")
    db.close()
    fresh(work)
    frames = rewrite_wal_salts(a.out + "-wal", rng.getrandbits(32), rng.getrandbits(32))
    check_wal_copy(a.out, live)
    deleted.sort()
    truth = schema_truth(a.seed, ["message"])
    truth.update({
        "base_messages": a.base, "added_messages": a.added, "wal_frames": frames,
        "live_rows_seen_by": "the writing connection, just before the copy",
        "deleted": {"message": [json_row(r) for r in deleted]},
        "deleted_overflow": {"message": [payload_size(r) > MAX_LOCAL for r in deleted]},
        "live": {"message": [json_row(r) for r in live]},
    })
    write_truth(a.out, truth)
    return f"{a.base} + {a.added} messages, {len(deleted)} deleted, {len(live)} live, {frames} log frames"


def check_wal_copy(out, live):
    """Opens a scratch copy of the pair (never the pair itself) and compares what it reads."""
    with tempfile.TemporaryDirectory() as tmp:
        copy = os.path.join(tmp, "copy.db")
        shutil.copyfile(out, copy)
        shutil.copyfile(out + "-wal", copy + "-wal")
        db = sqlite3.connect(copy)
        seen = db.execute(f"SELECT {MESSAGE_COLS} FROM message ORDER BY id").fetchall()
        ok = db.execute("PRAGMA integrity_check").fetchone()[0]
        db.close()
    assert ok == "ok" and seen == live, "the copied log does not reproduce the live rows"


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    sub = p.add_subparsers(dest="cmd", required=True)
    s = sub.add_parser("bench", help="about 300 MB, 10%% of messages deleted, attachments emptied")
    s.add_argument("out")
    s.add_argument("--messages", type=int, default=680_000)
    s.add_argument("--seed", type=int, default=1)
    s = sub.add_parser("recovery", help="deletes in many small transactions, full ground truth")
    s.add_argument("out")
    s.add_argument("--messages", type=int, default=50_000)
    s.add_argument("--seed", type=int, default=1)
    s = sub.add_parser("wal", help="database and write-ahead log copied from an open writer")
    s.add_argument("out")
    s.add_argument("--base", type=int, default=20_000)
    s.add_argument("--added", type=int, default=3_000)
    s.add_argument("--deleted", type=int, default=1_500)
    s.add_argument("--seed", type=int, default=1)
    a = p.parse_args()
    if a.cmd == "wal" and a.deleted > a.base + a.added:
        p.error("--deleted exceeds the number of messages")
    started = time.monotonic()
    what = {"bench": cmd_bench, "recovery": cmd_recovery, "wal": cmd_wal}[a.cmd](a)
    size = os.path.getsize(a.out)
    extra = f" + {os.path.getsize(a.out + '-wal')} bytes of log" if a.cmd == "wal" else ""
    print(f"{a.out}: {what}; {size} bytes ({size / 1e6:.1f} MB){extra}; {time.monotonic() - started:.1f} s")


if __name__ == "__main__":
    main()
