#include "SQliteSchema.h"

#include "SQliteTableReader.h"

#include <QRegularExpression>

#include <cmath>
#include <cstdio>

namespace {

// ---------------------------------------------------------------------------------------------
// Tokens, as SQLite's tokenizer makes them.

enum Kind { Word, Quoted, String, BlobLiteral, Number, Open, Close, Comma, Other, End };

struct Token {
    Kind kind = End;
    QString text; // a word or a number as written; a quoted name, string or blob as its content
    int start = 0, end = 0;
    bool is(const char* keyword) const {
        return kind == Word && text.compare(QLatin1String(keyword), Qt::CaseInsensitive) == 0;
    }
    // Usable as a name: a word, a quoted identifier or a string.
    bool isName() const { return kind == Word || kind == Quoted || kind == String; }
};

// The tokens of a statement, ending with an End token that every look-ahead past it finds.
struct Tokens {
    QList<Token> list;
    const Token& operator[](int k) const { return list[std::max(0, std::min(k, list.size() - 1))]; }
    int size() const { return list.size(); }
};

bool idChar(QChar c) {
    return c.isLetterOrNumber() || c == '_' || c == '$' || c.unicode() >= 0x80;
}

// The contents of a quoted token, its closing quote doubled inside.
QString unquoteBody(const QString& sql, int from, int to, QChar close) {
    QString body = sql.mid(from, to - from);
    if (close != ']') body.replace(QString(2, close), QString(close));
    return body;
}

Tokens tokenize(const QString& sql) {
    QList<Token> tokens;
    const int n = sql.size();
    int i = 0;
    while (i < n) {
        const QChar c = sql.at(i);
        const int start = i;
        if (c.isSpace()) {
            ++i;
            continue;
        }
        if (c == '-' && i + 1 < n && sql.at(i + 1) == '-') {
            while (i < n && sql.at(i) != '\n')
                ++i;
            continue;
        }
        if (c == '/' && i + 1 < n && sql.at(i + 1) == '*') {
            const int close = sql.indexOf(QLatin1String("*/"), i + 2);
            i = close < 0 ? n : close + 2;
            continue;
        }
        Token t;
        t.start = start;
        if ((c == 'x' || c == 'X') && i + 1 < n && sql.at(i + 1) == '\'') {
            int j = i + 2;
            while (j < n && sql.at(j) != '\'')
                ++j;
            t.kind = BlobLiteral;
            t.text = sql.mid(i + 2, j - i - 2);
            i = std::min(n, j + 1);
        } else if (c == '"' || c == '`' || c == '\'' || c == '[') {
            const QChar close = c == '[' ? QChar(']') : c;
            int j = i + 1;
            while (j < n) {
                if (sql.at(j) == close) {
                    if (close != ']' && j + 1 < n && sql.at(j + 1) == close) {
                        j += 2;
                        continue;
                    }
                    break;
                }
                ++j;
            }
            t.kind = c == '\'' ? String : Quoted;
            t.text = unquoteBody(sql, i + 1, std::min(j, n), close);
            i = std::min(n, j + 1);
        } else if (c.isDigit() || (c == '.' && i + 1 < n && sql.at(i + 1).isDigit())) {
            int j = i;
            if (c == '0' && i + 1 < n && (sql.at(i + 1) == 'x' || sql.at(i + 1) == 'X')) {
                j += 2;
                while (j < n && isxdigit(sql.at(j).toLatin1()))
                    ++j;
            } else {
                while (j < n && (sql.at(j).isDigit() || sql.at(j) == '.'))
                    ++j;
                if (j < n && (sql.at(j) == 'e' || sql.at(j) == 'E')) {
                    int k = j + 1;
                    if (k < n && (sql.at(k) == '+' || sql.at(k) == '-')) ++k;
                    if (k < n && sql.at(k).isDigit()) {
                        j = k;
                        while (j < n && sql.at(j).isDigit())
                            ++j;
                    }
                }
            }
            t.kind = Number;
            t.text = sql.mid(i, j - i);
            i = j;
        } else if (idChar(c)) {
            int j = i;
            while (j < n && idChar(sql.at(j)))
                ++j;
            t.kind = Word;
            t.text = sql.mid(i, j - i);
            i = j;
        } else {
            t.kind = c == '(' ? Open : c == ')' ? Close : c == ',' ? Comma : Other;
            t.text = c;
            ++i;
        }
        t.end = i;
        tokens.append(t);
    }
    Token end;
    end.start = end.end = n;
    tokens.append(end);
    return {tokens};
}

// A range of tokens [from, to).
struct Span {
    int from = 0, to = 0;
    bool empty() const { return from >= to; }
};

// The index just past the parenthesised group that opens at i (or the end).
int skipGroup(const Tokens& t, int i, int to) {
    int depth = 0;
    for (; i < to; ++i) {
        if (t[i].kind == Open) ++depth;
        if (t[i].kind == Close && --depth == 0) return i + 1;
    }
    return to;
}

// The comma-separated parts of the group that opens at open, each without its comma.
QList<Span> splitGroup(const Tokens& t, int open, int* close) {
    QList<Span> parts;
    int depth = 0, start = open + 1;
    for (int i = open; i < t.size(); ++i) {
        if (t[i].kind == End) break;
        if (t[i].kind == Open) {
            ++depth;
        } else if (t[i].kind == Close) {
            if (--depth == 0) {
                parts.append({start, i});
                *close = i;
                return parts;
            }
        } else if (t[i].kind == Comma && depth == 1) {
            parts.append({start, i});
            start = i + 1;
        }
    }
    *close = -1;
    return parts;
}

const QStringList kColumnConstraints = {"CONSTRAINT", "PRIMARY", "NOT",        "NULL",      "UNIQUE", "CHECK",
                                        "DEFAULT",    "COLLATE", "REFERENCES", "GENERATED", "AS"};
const QStringList kTableConstraints = {"CONSTRAINT", "PRIMARY", "UNIQUE", "CHECK", "FOREIGN"};

bool isKeyword(const Token& t, const QStringList& words) {
    return t.kind == Word && words.contains(t.text, Qt::CaseInsensitive);
}

// Past a foreign key clause after REFERENCES: the table, its columns, then its actions.
int skipForeignKey(const Tokens& t, int i, int to) {
    if (i < to && t[i].isName()) ++i;
    if (i < to && t[i].kind == Open) i = skipGroup(t, i, to);
    while (i < to) {
        if (t[i].is("ON") && i + 1 < to) {
            i += 2; // ON DELETE | ON UPDATE
            if (i < to && (t[i].is("SET") || t[i].is("NO"))) ++i;
            if (i < to) ++i; // NULL, DEFAULT, ACTION, CASCADE, RESTRICT
        } else if (t[i].is("MATCH")) {
            i += 2;
        } else if (t[i].is("NOT") && i + 1 < to && t[i + 1].is("DEFERRABLE")) {
            ++i;
        } else if (t[i].is("DEFERRABLE")) {
            ++i;
            if (i < to && t[i].is("INITIALLY")) i += 2;
        } else {
            break;
        }
    }
    return i;
}

// ---------------------------------------------------------------------------------------------
// Literals and affinity

// How SQLite writes a float as text: 15 significant digits, with a decimal point always.
QString realText(double v) {
    if (std::isinf(v)) return v > 0 ? "Inf" : "-Inf";
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.15g", v);
    QString s = QString::fromLatin1(buffer);
    if (!s.contains('.') && !s.contains("nan", Qt::CaseInsensitive)) {
        const int e = s.indexOf('e');
        s.insert(e < 0 ? s.size() : e, ".0");
    }
    return s;
}

// A float that holds an integer becomes that integer, as the engine's numeric affinities make it.
QVariant integral(double d) {
    if (d == std::floor(d) && d > -9.2233720368547758e18 && d < 9.2233720368547758e18)
        return QVariant(qlonglong(d));
    return QVariant(d);
}

// A value as a column of this affinity keeps it: numeric affinities turn text that reads as a
// number into that number (an integer when it holds one), TEXT turns numbers into text.
QVariant withAffinity(const QVariant& value, SQliteSchema::Affinity affinity) {
    using A = SQliteSchema;
    const int type = int(value.type());
    if (affinity == A::TextAffinity) {
        if (type == QMetaType::LongLong) return QVariant(QString::number(value.toLongLong()));
        if (type == QMetaType::Double) return QVariant(realText(value.toDouble()));
        return value;
    }
    if (affinity == A::BlobAffinity) return value;
    if (type == QMetaType::Double) return integral(value.toDouble());
    if (type != QMetaType::QString) return value;
    static const QRegularExpression decimal(QStringLiteral("^[+-]?(\\d+\\.?\\d*|\\.\\d+)([eE][+-]?\\d+)?$"));
    const QString text = value.toString().trimmed();
    if (!decimal.match(text).hasMatch()) return value;
    bool ok = false;
    const qlonglong i = text.toLongLong(&ok);
    return ok ? QVariant(i) : integral(text.toDouble());
}

// The value a DEFAULT clause gives a row written before its column was added, as the engine
// works it out from the literal: an integer that fits 32 bits is that integer; any other number
// is its own text (signed) given the column's affinity, or NUMERIC's for a column without one;
// a string or a bare word is text given the affinity; also NULL, TRUE, FALSE and blobs, and any
// of these in parentheses. Anything else gives no value (invalid).
QVariant literalDefault(const Tokens& t, Span s, SQliteSchema::Affinity affinity) {
    while (s.to - s.from >= 3 && t[s.from].kind == Open && t[s.to - 1].kind == Close &&
           skipGroup(t, s.from, s.to) == s.to) {
        ++s.from;
        --s.to;
    }
    bool negative = false;
    if (s.to - s.from == 2 && t[s.from].kind == Other && (t[s.from].text == "-" || t[s.from].text == "+")) {
        negative = t[s.from].text == "-";
        ++s.from;
        if (t[s.from].kind != Number) return QVariant();
    }
    if (s.to - s.from != 1) return QVariant();
    const Token& v = t[s.from];
    switch (v.kind) {
    case Number: {
        bool small = false;
        qlonglong value = 0;
        if (v.text.startsWith("0x", Qt::CaseInsensitive)) {
            value = v.text.mid(2).toLongLong(&small, 16);
            small = small && value <= INT32_MAX;
        } else if (!v.text.contains(QRegularExpression("[.eE]"))) {
            value = v.text.toLongLong(&small);
            small = small && value <= INT32_MAX;
        }
        if (small) return withAffinity(QVariant(negative ? -value : value), affinity);
        const QVariant text(QString(negative ? "-" : "") + v.text);
        return withAffinity(text, affinity == SQliteSchema::BlobAffinity ? SQliteSchema::NumericAffinity
                                                                         : affinity);
    }
    case String:
    case Word:
    case Quoted:
        if (v.is("TRUE") || v.is("FALSE")) return withAffinity(QVariant(qlonglong(v.is("TRUE"))), affinity);
        if (v.is("NULL") || v.text.startsWith("CURRENT_", Qt::CaseInsensitive)) return QVariant();
        return withAffinity(QVariant(v.text), affinity);
    case BlobLiteral:
        return QVariant(QByteArray::fromHex(v.text.toLatin1()));
    default:
        return QVariant();
    }
}

QString rawText(const QString& sql, const Tokens& t, Span s) {
    if (s.empty()) return QString();
    return sql.mid(t[s.from].start, t[s.to - 1].end - t[s.from].start);
}

// The names of the columns of a PRIMARY KEY (...) or UNIQUE (...) list, with their order.
QList<QPair<QString, bool>> keyColumns(const Tokens& t, int open) {
    QList<QPair<QString, bool>> keys;
    int close = -1;
    for (const Span& part : splitGroup(t, open, &close)) {
        if (part.empty() || !t[part.from].isName()) continue;
        bool descending = false;
        for (int i = part.from + 1; i < part.to; ++i)
            descending = descending || t[i].is("DESC");
        keys.append({t[part.from].text, descending});
    }
    return keys;
}

} // namespace

// ---------------------------------------------------------------------------------------------

SQliteSchema::Affinity SQliteSchema::affinityOf(const QString& declaredType) {
    const QString t = declaredType.toUpper();
    if (t.contains("INT")) return IntegerAffinity;
    if (t.contains("CHAR") || t.contains("CLOB") || t.contains("TEXT")) return TextAffinity;
    if (t.contains("BLOB") || t.trimmed().isEmpty()) return BlobAffinity;
    if (t.contains("REAL") || t.contains("FLOA") || t.contains("DOUB")) return RealAffinity;
    return NumericAffinity;
}

QString SQliteSchema::affinityName(Affinity affinity) {
    static const char* const names[] = {"INTEGER", "TEXT", "BLOB", "REAL", "NUMERIC"};
    return QString::fromLatin1(names[affinity]);
}

QStringList SQliteSchema::Table::columnNames() const {
    QStringList names;
    for (const Column& c : columns)
        names << c.name;
    return names;
}

int SQliteSchema::Table::columnIndex(const QString& name) const {
    for (int i = 0; i < columns.size(); ++i)
        if (columns.at(i).name.compare(name, Qt::CaseInsensitive) == 0) return i;
    return -1;
}

int SQliteSchema::Table::storedColumns() const {
    int n = 0;
    for (const Column& c : columns)
        n += c.storage >= 0 ? 1 : 0;
    return n;
}

QString SQliteSchema::masterTableSql() {
    return QStringLiteral(
        "CREATE TABLE sqlite_master(type text, name text, tbl_name text, rootpage int, sql text)");
}

SQliteSchema::Table SQliteSchema::parseCreateTable(const QString& sql) {
    Table table;
    const Tokens t = tokenize(sql);
    int i = 0;
    auto fail = [&table](const QString& why) {
        table.ok = false;
        table.error = why;
        return table;
    };
    if (!t[i].is("CREATE")) return fail("not a CREATE statement");
    ++i;
    if (t[i].is("TEMP") || t[i].is("TEMPORARY")) ++i;
    if (t[i].is("VIRTUAL")) {
        table.isVirtual = true;
        ++i;
    }
    if (!t[i].is("TABLE")) return fail("not a CREATE TABLE statement");
    ++i;
    if (t[i].is("IF") && t[i + 1].is("NOT") && t[i + 2].is("EXISTS")) i += 3;
    if (!t[i].isName()) return fail("no table name");
    table.name = t[i].text;
    ++i;
    if (t[i].kind == Other && t[i].text == "." && t[i + 1].isName()) { // schema.table
        table.name = t[i + 1].text;
        i += 2;
    }
    if (table.isVirtual) {
        if (t[i].is("USING") && t[i + 1].isName()) table.module = t[i + 1].text;
        table.ok = true;
        return table;
    }
    if (t[i].kind != Open) return fail("no column list");
    int close = -1;
    const QList<Span> parts = splitGroup(t, i, &close);
    if (close < 0) return fail("the column list is not closed");

    struct Key {
        QString name;
        bool descending;
        bool columnLevel;
    };
    QList<Key> primary;
    QList<QPair<int, Span>> defaults; // by column, worked out once the affinity is known
    bool constraints = false;
    for (const Span& part : parts) {
        if (part.empty()) continue;
        int k = part.from;
        if (constraints || isKeyword(t[k], kTableConstraints)) {
            constraints = true;
            // One or more table constraints, each perhaps named.
            while (k < part.to) {
                if (t[k].is("PRIMARY") && k + 2 < part.to && t[k + 2].kind == Open) {
                    for (const auto& key : keyColumns(t, k + 2))
                        primary.append({key.first, key.second, false});
                    k = skipGroup(t, k + 2, part.to);
                } else if (t[k].kind == Open) {
                    k = skipGroup(t, k, part.to);
                } else if (t[k].is("REFERENCES")) {
                    k = skipForeignKey(t, k + 1, part.to);
                } else {
                    ++k;
                }
            }
            continue;
        }
        if (!t[k].isName())
            return fail(QString("cannot read the column definition '%1'").arg(rawText(sql, t, part)));
        Column column;
        column.name = t[k].text;
        ++k;
        // The type: names up to a constraint, then perhaps one parenthesised group.
        const int typeFrom = k;
        while (k < part.to && t[k].isName() && !isKeyword(t[k], kColumnConstraints))
            ++k;
        if (k > typeFrom && k < part.to && t[k].kind == Open) k = skipGroup(t, k, part.to);
        Span type{typeFrom, k};
        column.declaredType = rawText(sql, t, type);
        if (type.to - type.from == 1 && t[type.from].kind != Word) column.declaredType = t[type.from].text;
        bool keyDescending = false, key = false;
        while (k < part.to) {
            const Token& w = t[k];
            if (w.is("CONSTRAINT")) {
                k += 2;
            } else if (w.is("PRIMARY")) {
                key = true;
                k += 2; // PRIMARY KEY
                if (k < part.to && (t[k].is("ASC") || t[k].is("DESC"))) keyDescending = t[k++].is("DESC");
            } else if (w.is("NOT") && k + 1 < part.to && t[k + 1].is("NULL")) {
                column.notNull = true;
                k += 2;
            } else if (w.is("DEFAULT")) {
                int end = k + 1;
                if (end < part.to && t[end].kind == Open) {
                    end = skipGroup(t, end, part.to);
                } else {
                    if (end < part.to && t[end].kind == Other) ++end; // a sign
                    if (end < part.to) ++end;
                }
                const Span value{k + 1, end};
                column.defaultText = rawText(sql, t, value);
                defaults.append({int(table.columns.size()), value});
                k = end;
            } else if (w.is("COLLATE") && k + 1 < part.to) {
                column.collation = t[k + 1].text;
                k += 2;
            } else if (w.is("REFERENCES")) {
                k = skipForeignKey(t, k + 1, part.to);
            } else if (w.is("GENERATED") || w.is("AS")) {
                while (k < part.to && t[k].kind != Open)
                    ++k;
                k = skipGroup(t, k, part.to);
                column.generated = VirtualColumn;
                if (k < part.to && t[k].is("STORED")) column.generated = StoredColumn;
                if (k < part.to && (t[k].is("STORED") || t[k].is("VIRTUAL"))) ++k;
            } else if (w.kind == Open) {
                k = skipGroup(t, k, part.to); // CHECK (...), ON CONFLICT ...
            } else {
                ++k;
            }
        }
        if (key) primary.append({column.name, keyDescending, true});
        table.columns.append(column);
    }
    if (table.columns.isEmpty()) return fail("no columns");

    // Options after the column list: WITHOUT ROWID, STRICT.
    for (int k = close + 1; k < t.size() && t[k].kind != End; ++k) {
        if (t[k].is("WITHOUT") && t[k + 1].is("ROWID")) table.withoutRowid = true;
        if (t[k].is("STRICT")) table.strict = true;
    }

    for (Column& c : table.columns)
        c.affinity = table.strict && c.declaredType.compare("ANY", Qt::CaseInsensitive) == 0
                         ? BlobAffinity
                         : affinityOf(c.declaredType);
    for (const auto& d : defaults) {
        Column& c = table.columns[d.first];
        c.defaultValue = literalDefault(t, d.second, c.affinity);
    }
    // The primary key, each column once.
    for (const Key& k : primary) {
        const int index = table.columnIndex(k.name);
        if (index >= 0 && !table.primaryKey.contains(index)) {
            table.primaryKey.append(index);
            table.columns[index].primaryKey = true;
        }
    }
    // A lone INTEGER primary key is the rowid, unless declared DESC on the column itself.
    if (!table.withoutRowid && primary.size() == 1 && table.primaryKey.size() == 1) {
        const Column& c = table.columns.at(table.primaryKey.first());
        if (c.declaredType.compare("INTEGER", Qt::CaseInsensitive) == 0 &&
            !(primary.first().columnLevel && primary.first().descending))
            table.rowidAlias = table.primaryKey.first();
    }
    // Where each value lies in a record: in declared order, or in a table without rowid the
    // key's columns first; virtual generated columns nowhere.
    int next = 0;
    if (table.withoutRowid)
        for (int index : table.primaryKey)
            table.columns[index].storage = next++;
    for (Column& c : table.columns)
        if (c.generated != VirtualColumn && !(table.withoutRowid && c.primaryKey)) c.storage = next++;
    table.ok = true;
    return table;
}

QStringList SQliteSchema::indexColumns(const QString& sql) {
    const Tokens t = tokenize(sql);
    int i = 0;
    if (!t[i++].is("CREATE")) return {};
    if (t[i].is("UNIQUE")) ++i;
    if (!t[i++].is("INDEX")) return {};
    while (t[i].kind != End && t[i].kind != Open)
        ++i;
    int close = -1;
    QStringList columns;
    for (const Span& part : splitGroup(t, i, &close)) {
        // A name, perhaps with COLLATE and an order; anything else is an expression.
        const bool named = !part.empty() && t[part.from].isName() &&
                           (part.to == part.from + 1 || t[part.from + 1].is("COLLATE") ||
                            t[part.from + 1].is("ASC") || t[part.from + 1].is("DESC"));
        columns << (named ? t[part.from].text : QString());
    }
    return close < 0 ? QStringList() : columns;
}

QList<SQliteSchema::Object> SQliteSchema::read(SQliteDbUtil& db) {
    QList<Object> objects;
    Object master;
    master.type = QStringLiteral("table");
    master.name = master.tableName = QStringLiteral("sqlite_master");
    master.rootPage = 1;
    master.sql = masterTableSql();
    master.table = parseCreateTable(master.sql);
    objects.append(master);
    SQliteTableReader reader(db);
    reader.setTable(master.table, 1);
    reader.forEachRow([&](const SQliteTableReader::Row& row) {
        Object o;
        o.type = row.value(0).text();
        o.name = row.value(1).text();
        o.tableName = row.value(2).text();
        const SQliteValue root = row.value(3);
        o.rootPage = root.type == SQliteValue::Integer ? root.integer : 0;
        o.sql = row.value(4).text();
        if (o.type == QLatin1String("table")) o.table = parseCreateTable(o.sql);
        objects.append(o);
        return true;
    });
    return objects;
}
