#!/usr/bin/env python3
"""Makes device backup folders for the backup reader's tests and for timing its listing.

Every output is a pure function of the arguments: fixed times, fixed contents, a seeded
random.Random, and write-ahead-log salts set from the seed. Only Python's sqlite3 and plistlib
write the files, independently of the library under test.

    make_backup.py cases OUT
        OUT/db         index in Manifest.db (16 bytes after its last page), the three property
                       lists, stored files under two-hex-digit folders
        OUT/mbdb       index in Manifest.mbdb, Info.plist only, stored files flat in the folder
        OUT/encrypted  Manifest.plist says the backup is encrypted; Manifest.db is cipher text
        OUT/cases.json what the folders hold, for the tests

    make_backup.py bench OUT [--entries N]
        OUT holds a Manifest.db backup of N entries (default 100000), each file stored.

Both indexed backups hold: folders, files, a messages database (sms.db) whose -wal sibling is
stored under a hash of its own, a property list, a link, and the hostile entries listed in
HOSTILE below; an entry whose stored file is missing; a stored file that the index does not name.
"""
import argparse
import hashlib
import json
import os
import plistlib
import shutil
import sqlite3
import struct
import sys
import tempfile
from datetime import datetime
from random import Random

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "bench"))
from make_corpus import rewrite_wal_salts  # noqa: E402

BACKUP_DATE = datetime(2024, 3, 1, 12, 30, 0)  # plistlib writes naive datetimes as UTC
MTIME = 1700000000  # 2023-11-14T22:13:20Z
FILE, FOLDER, LINK = 0o100644, 0o40755, 0o120755
HUGE = 2**63 + 1  # more than a signed 64-bit size holds, and more than a double keeps exactly

# (domain, path, what): entries that must never become a file name outside the extraction folder.
HOSTILE = [
    ("HomeDomain", "../../escape.txt", "dotdot"),
    ("HomeDomain", "/tmp/absolute.txt", "absolute"),
    ("../EvilDomain", "x.txt", "domain"),
    ("HomeDomain", "ctl\x01name.txt", "control"),
    ("HomeDomain", "nul\x00name.txt", "nul"),
    ("HomeDomain", "Library/link/passwd", "through-link"),
]


def file_id(domain, path):
    return hashlib.sha1(f"{domain}-{path}".encode()).hexdigest()


def archive(entry, inode):
    """The entry's metadata as a keyed archive, the way backups store it in Manifest.db."""
    objects = ["$null"]

    def add(obj):
        objects.append(obj)
        return plistlib.UID(len(objects) - 1)

    root = {
        "Size": entry.get("size", len(entry.get("data", b""))),
        "Mode": entry["mode"],
        "LastModified": entry.get("mtime", MTIME),
        "LastStatusChange": entry.get("mtime", MTIME) + 1,
        "Birth": entry.get("mtime", MTIME) - 100,
        "UserID": 501,
        "GroupID": 501,
        "InodeNumber": inode,
        "ProtectionClass": 3,
        "Flags": 0,
    }
    objects.append(root)
    root["RelativePath"] = add(entry["path"])
    if "target" in entry:
        root["Target"] = add(entry["target"])
    root["$class"] = add({"$classname": "FileRecord", "$classes": ["FileRecord", "NSObject"]})
    return plistlib.dumps(
        {"$version": 100000, "$archiver": "NSKeyedArchiver", "$top": {"root": plistlib.UID(1)}, "$objects": objects},
        fmt=plistlib.FMT_BINARY,
    )


def messages_db(seed):
    """sms.db with three rows in the main file and two more committed only in its log."""
    work = tempfile.mkdtemp()
    try:
        path = os.path.join(work, "sms.db")
        db = sqlite3.connect(path, isolation_level=None)
        db.executescript("PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;"
                         "CREATE TABLE message (ROWID INTEGER PRIMARY KEY, text TEXT, date INTEGER);")
        for i in range(1, 4):
            db.execute("INSERT INTO message VALUES (?, ?, ?)", (i, f"checkpointed {i}", MTIME + i))
        db.execute("PRAGMA wal_checkpoint(TRUNCATE)")
        for i in range(4, 6):
            db.execute("INSERT INTO message VALUES (?, ?, ?)", (i, f"only in the log {i}", MTIME + i))
        main = open(path, "rb").read()
        shutil.copy(path + "-wal", os.path.join(work, "copy-wal"))
        db.close()
        rng = Random(seed)
        rewrite_wal_salts(os.path.join(work, "copy-wal"), rng.getrandbits(32), rng.getrandbits(32))
        return main, open(os.path.join(work, "copy-wal"), "rb").read()
    finally:
        shutil.rmtree(work)


def case_entries(legacy):
    main, log = messages_db(7)
    settings = plistlib.dumps({"name": "Anna", "volume": 7}, fmt=plistlib.FMT_BINARY)
    entries = [
        {"domain": "HomeDomain", "path": "", "mode": FOLDER},
        {"domain": "HomeDomain", "path": "Library", "mode": FOLDER},
        {"domain": "HomeDomain", "path": "Library/SMS", "mode": FOLDER},
        {"domain": "HomeDomain", "path": "Library/SMS/sms.db", "mode": FILE, "data": main},
        {"domain": "HomeDomain", "path": "Library/SMS/sms.db-wal", "mode": FILE, "data": log},
        {"domain": "HomeDomain", "path": "Library/Preferences/com.example.settings.plist", "mode": FILE,
         "data": settings},
        {"domain": "MediaDomain", "path": "Media/notes/note.txt", "mode": FILE, "data": b"evidence\n"},
        {"domain": "HomeDomain", "path": "Library/Caches/gone.txt", "mode": FILE, "size": 5, "stored": False},
        {"domain": "HomeDomain", "path": "Library/link", "mode": LINK, "target": "/etc"},
        {"domain": "HomeDomain", "path": "Library/huge.bin", "mode": FILE, "data": b"small", "size": HUGE},
    ]
    for domain, path, what in HOSTILE:
        entries.append({"domain": domain, "path": path, "mode": FILE, "data": f"hostile {what}\n".encode()})
    if not legacy:
        entries += [
            {"domain": "HomeDomain", "path": "Library/garbage.txt", "mode": FILE, "data": b"meta",
             "blob": b"not a keyed archive"},
            {"domain": "HomeDomain", "path": "Library/badid.txt", "mode": FILE, "data": b"x",
             "fileID": "../../Info.plist"},
        ]
    return entries


def write_plist(path, value):
    with open(path, "wb") as f:
        plistlib.dump(value, f, fmt=plistlib.FMT_XML)


def write_plists(folder, encrypted=False, only_info=False):
    write_plist(os.path.join(folder, "Info.plist"), {
        "Device Name": "Test Phone", "Display Name": "Test Phone", "Product Type": "Phone9,1",
        "Product Version": "17.1", "Build Version": "21B74", "Serial Number": "SN0123456789",
        "Unique Identifier": "00008030-0123456789ABCDEF", "Last Backup Date": BACKUP_DATE,
        "Installed Applications": ["com.example.chat", "com.example.notes"],
    })
    if only_info:
        return
    manifest = {
        "IsEncrypted": encrypted, "Version": "10.0", "Date": BACKUP_DATE,
        "Lockdown": {"DeviceName": "Test Phone", "ProductType": "Phone9,1", "ProductVersion": "17.1",
                     "SerialNumber": "SN0123456789"},
        "Applications": {"com.example.chat": {"CFBundleIdentifier": "com.example.chat"},
                         "com.example.notes": {"CFBundleIdentifier": "com.example.notes"},
                         "com.example.maps": {"CFBundleIdentifier": "com.example.maps"}},
    }
    if encrypted:
        manifest["ManifestKey"] = bytes(range(44))
        manifest["BackupKeyBag"] = bytes(range(64))
    write_plist(os.path.join(folder, "Manifest.plist"), manifest)
    write_plist(os.path.join(folder, "Status.plist"), {
        "IsFullBackup": False, "Version": "3.3", "BackupState": "new", "Date": BACKUP_DATE,
        "SnapshotState": "finished", "UUID": "00000000-0000-0000-0000-000000000001",
    })


def store(folder, fid, data, flat):
    sub = folder if flat else os.path.join(folder, fid[:2])
    os.makedirs(sub, exist_ok=True)
    with open(os.path.join(sub, fid), "wb") as f:
        f.write(data)


def manifest_db(folder, rows):
    path = os.path.join(folder, "Manifest.db")
    db = sqlite3.connect(path, isolation_level=None)
    db.executescript("""
        PRAGMA journal_mode=DELETE;
        CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB);
        CREATE INDEX FilesDomainIdx ON Files(domain);
        CREATE INDEX FilesRelativePathIdx ON Files(relativePath);
        CREATE INDEX FilesFlagsIdx ON Files(flags);
        CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB);
        BEGIN;""")
    db.executemany("INSERT INTO Files VALUES (?, ?, ?, ?, ?)", rows)
    db.execute("COMMIT")
    db.close()
    with open(path, "ab") as f:  # as copied from a device: bytes after the last page
        f.write(bytes(range(16)))


def flags(mode):
    return {FILE: 1, FOLDER: 2, LINK: 4}[mode]


def make_db_case(folder):
    os.makedirs(folder)
    write_plists(folder)
    rows = []
    for inode, e in enumerate(case_entries(legacy=False), start=1000):
        fid = e.get("fileID", file_id(e["domain"], e["path"]))
        rows.append((fid, e["domain"], e["path"], flags(e["mode"]), e.get("blob", archive(e, inode))))
        if e["mode"] == FILE and e.get("stored", True) and "fileID" not in e:
            store(folder, fid, e["data"], flat=False)
    manifest_db(folder, rows)
    store(folder, "f" * 40, b"not in the index\n", flat=False)


def mbdb_field(value):
    if value is None:
        return b"\xff\xff"
    data = value.encode() if isinstance(value, str) else value
    return struct.pack(">H", len(data)) + data


def make_mbdb_case(folder):
    os.makedirs(folder)
    write_plists(folder, only_info=True)
    records = [b"mbdb\x05\x00"]
    for inode, e in enumerate(case_entries(legacy=True), start=1000):
        data = e.get("data", b"")
        size = e.get("size", len(data))
        records.append(
            mbdb_field(e["domain"]) + mbdb_field(e["path"]) + mbdb_field(e.get("target"))
            + mbdb_field(hashlib.sha1(data).digest() if e["mode"] == FILE else None) + mbdb_field(None)
            + struct.pack(">HQIIIIIQBB", e["mode"], inode, 501, 501, MTIME, MTIME, MTIME - 100, size, 3, 0))
        if e["mode"] == FILE and e.get("stored", True):
            store(folder, file_id(e["domain"], e["path"]), data, flat=True)
    with open(os.path.join(folder, "Manifest.mbdb"), "wb") as f:
        f.write(b"".join(records))
    store(folder, "f" * 40, b"not in the index\n", flat=True)


def make_encrypted_case(folder):
    os.makedirs(folder)
    write_plists(folder, encrypted=True)
    with open(os.path.join(folder, "Manifest.db"), "wb") as f:
        f.write(Random(3).randbytes(8192))
    store(folder, file_id("HomeDomain", "Library/SMS/sms.db"), Random(4).randbytes(4096), flat=False)


def cmd_cases(out):
    make_db_case(os.path.join(out, "db"))
    make_mbdb_case(os.path.join(out, "mbdb"))
    make_encrypted_case(os.path.join(out, "encrypted"))
    with open(os.path.join(out, "cases.json"), "w") as f:
        json.dump({"hostile": [{"domain": d, "path": p, "what": w} for d, p, w in HOSTILE],
                   "mtime": MTIME, "huge": str(HUGE)}, f, indent=1)


def cmd_bench(out, entries):
    write_plists(out)
    rng = Random(entries)
    domains = ["HomeDomain", "MediaDomain", "CameraRollDomain"] + [f"AppDomain-com.example.app{i}" for i in range(40)]
    rows = []
    for i in range(entries):
        domain = domains[rng.randrange(len(domains))]
        path = f"Library/Data/{i // 1000:03d}/item-{i:06d}.dat"
        data = b"%d\n" % i
        e = {"domain": domain, "path": path, "mode": FILE, "data": data, "mtime": MTIME + i}
        fid = file_id(domain, path)
        rows.append((fid, domain, path, 1, archive(e, i + 1)))
        store(out, fid, data, flat=False)
    manifest_db(out, rows)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    sub = p.add_subparsers(dest="cmd", required=True)
    s = sub.add_parser("cases")
    s.add_argument("out")
    s = sub.add_parser("bench")
    s.add_argument("out")
    s.add_argument("--entries", type=int, default=100_000)
    a = p.parse_args()
    if os.path.exists(a.out) and os.listdir(a.out):
        p.error(f"{a.out} exists and is not empty")
    os.makedirs(a.out, exist_ok=True)
    cmd_cases(a.out) if a.cmd == "cases" else cmd_bench(a.out, a.entries)


if __name__ == "__main__":
    main()
