#!/usr/bin/env python3
"""Makes examples/chat.db, the sample chat database that utils-inspect is demonstrated on.

A small messaging store (contacts and messages, 1 KiB pages so that the longer messages
overflow) from which some messages and one contact are deleted with secure_delete off, the
way a chat application deletes them. The deleted rows stay in the file's free space: in the
unallocated gaps and freeblocks of the table pages and on free-list pages.
Deterministic: the same SQLite library makes the same file.

    python3 examples/make_chat_db.py [OUTPUT]
"""
import os
import sqlite3
import sys

out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "chat.db")
if os.path.exists(out):
    os.remove(out)

db = sqlite3.connect(out)
db.executescript("""
PRAGMA page_size = 1024;
PRAGMA secure_delete = OFF;
PRAGMA auto_vacuum = NONE;
PRAGMA journal_mode = DELETE;
CREATE TABLE contact (id INTEGER PRIMARY KEY, name TEXT, phone TEXT, note TEXT);
CREATE TABLE message (id INTEGER PRIMARY KEY, chat_id INTEGER, sender TEXT, body TEXT,
                      sent_at INTEGER, is_from_me INTEGER);
CREATE INDEX message_chat ON message(chat_id);
""")

contacts = [
    (1, "Lena Marsh", "+44 7700 900123", "flatmate"),
    (2, "Tomás Reyes", "+34 612 345 678", None),
    (3, "Priya Natarajan", "+91 98765 43210", "work, design team"),
    (4, "Oskar Lind", "+46 70 123 45 67", "climbing on Thursdays"),
    (5, "Mei Chen", "+86 138 0013 8000", None),
]
db.executemany("INSERT INTO contact VALUES (?, ?, ?, ?)", contacts)

story = (
    "Long story, sorry. The landlord came round this morning about the boiler again and said "
    "the engineer can only come next Tuesday between eight and one, so somebody has to be in. "
    "I have the dentist at ten and Priya's workshop in the afternoon, so I really can't. "
)
conversation = [
    (1, "Lena Marsh", "Are you home tonight?", 0),
    (1, None, "Yes, back around 7. Why?", 1),
    (1, "Lena Marsh", "Package for you at the door, looks heavy", 0),
    (1, None, "That'll be the books, thanks!", 1),
    (1, "Lena Marsh", story * 3, 0),
    (1, None, "I can do Tuesday, working from home anyway", 1),
    (1, "Lena Marsh", "You're a star", 0),
    (2, "Tomás Reyes", "¿Quedamos el sábado para el partido?", 0),
    (2, None, "Claro, ¿a qué hora?", 1),
    (2, "Tomás Reyes", "A las seis en el bar de siempre", 0),
    (2, None, "Perfecto, llevo a Oskar", 1),
    (3, "Priya Natarajan", "Can you send me the final logo files before the review?", 0),
    (3, None, "Sending now, the SVGs are in the shared folder", 1),
    (3, "Priya Natarajan", "Got them. The client wants the blue a bit darker", 0),
    (3, None, "Darker blue, noted. New version by Friday", 1),
    (3, "Priya Natarajan", "Meeting moved to 14:30, room 4B", 0),
    (4, "Oskar Lind", "Climbing Thursday? The new wall opened", 0),
    (4, None, "In! Bring the spare harness please", 1),
    (4, "Oskar Lind", "Will do. 19:00 at the entrance", 0),
    (5, "Mei Chen", "明天的会议改到下午三点", 0),
    (5, None, "好的，我会准时到", 1),
    (5, "Mei Chen", "Also the contract draft is attached, please check section 4", 0),
    (1, "Lena Marsh", "The engineer says the boiler is fixed for good this time", 0),
    (1, None, "Finally. Pizza to celebrate?", 1),
    (3, "Priya Natarajan", "The account number for the invoice is GB29 NWBK 6016 1331 9268 19", 0),
    (3, None, "Paid, reference INV-2024-117", 1),
    (4, "Oskar Lind", "Left my chalk bag in your car, no rush", 0),
    (2, "Tomás Reyes", "Vaya partido, ¡qué golazo en el último minuto!", 0),
    (5, "Mei Chen", "Section 4 is fine, I signed it", 0),
    (1, "Lena Marsh", "Keys are under the plant pot, back Sunday", 0),
]
sent_at = 1700000000
rows = []
for i, (chat, sender, body, me) in enumerate(conversation, start=1):
    sent_at += 37 * 60 + (i * 211) % 3000
    rows.append((i, chat, sender, body, sent_at, me))
# Pad the history so that the table spans several pages and an interior root.
for i in range(len(rows) + 1, 141):
    chat = 1 + i % 5
    sent_at += 900 + (i * 131) % 4000
    rows.append((i, chat, None if i % 2 else contacts[chat - 1][1],
                 "Auto-reply %d: I'm away from my phone, will answer later." % i, sent_at, i % 2))
db.executemany("INSERT INTO message VALUES (?, ?, ?, ?, ?, ?)", rows)
db.commit()

# What the user deleted: a few sensitive messages, the long one, a whole stretch of
# auto-replies (whose pages go to the free list), and one contact.
db.execute("DELETE FROM message WHERE id IN (3, 5, 16, 25, 27, 30)")
db.execute("DELETE FROM message WHERE id BETWEEN 60 AND 95")
db.execute("DELETE FROM contact WHERE id = 4")
db.commit()
db.close()
print(out)
