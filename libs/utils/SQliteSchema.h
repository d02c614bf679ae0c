// The schema of an SQLite database as the engine understands it: every table, index, view and
// trigger with its root page, and each table's columns from its CREATE TABLE statement, read
// with SQLite's own tokens (identifiers quoted in any of the four styles with doubled quotes
// inside, string and blob literals, comments) and grammar (column definitions with their types
// and constraints, nested parentheses in DEFAULT, CHECK and generated columns, table
// constraints, WITHOUT ROWID and STRICT). It gives each column its declared type, its affinity
// by SQLite's rules, whether it is the rowid alias, and where its value lies in a record.
//
// It sits beside SQliteDbUtil::parseTables, whose column map keeps its documented contents.
#pragma once

#include "utils_export.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

class SQliteDbUtil;

class UTILS_EXPORT SQliteSchema {
public:
    enum Affinity { IntegerAffinity, TextAffinity, BlobAffinity, RealAffinity, NumericAffinity };
    enum Generated { NotGenerated, VirtualColumn, StoredColumn };

    struct Column {
        QString name;
        QString declaredType; // as written (without its quotes); empty when none
        Affinity affinity = BlobAffinity;
        bool primaryKey = false; // part of the table's primary key
        bool notNull = false;
        Generated generated = NotGenerated;
        QString collation;   // empty for the default (BINARY)
        QString defaultText; // the DEFAULT clause as written; empty when none
        QVariant
            defaultValue; // a literal default as the column stores it; invalid when none or not a literal
        // Where the column's value lies in a record of the table's b-tree, or -1 for a virtual
        // generated column, which no record holds.
        int storage = -1;
    };

    struct Table {
        QString name;
        QList<Column> columns;
        bool withoutRowid = false;
        bool strict = false;
        bool isVirtual = false; // CREATE VIRTUAL TABLE: its rows live elsewhere
        QString module;         // of a virtual table
        int rowidAlias = -1;    // the INTEGER PRIMARY KEY column, or -1
        QList<int> primaryKey;  // columns of the primary key, in key order
        bool ok = false;        // the statement was understood
        QString error;          // why not

        QStringList columnNames() const;
        int columnIndex(const QString& name) const; // case-insensitive, as SQL names are; -1 if none
        int storedColumns() const;                  // values a whole record of the table holds
    };

    // A row of the schema table: a table, an index, a view or a trigger.
    struct Object {
        QString type; // "table", "index", "view", "trigger"
        QString name;
        QString tableName;
        qint64 rootPage = 0;
        QString sql;
        Table table; // for tables: the statement, understood
    };

    // Reads the schema table of a loaded reader, as the engine stores it; the schema table itself
    // is listed first, as the table "sqlite_master".
    static QList<Object> read(SQliteDbUtil& db);

    // Understands one CREATE TABLE (or CREATE VIRTUAL TABLE) statement.
    static Table parseCreateTable(const QString& sql);
    // The columns a CREATE INDEX statement indexes, in its order, an expression as an empty
    // name; empty when the statement cannot be read.
    static QStringList indexColumns(const QString& sql);
    // SQLite's affinity rules on a declared type: INT, then CHAR, CLOB or TEXT, then BLOB or no
    // type, then REAL, FLOA or DOUB; anything else is NUMERIC. A STRICT table's ANY has none.
    static Affinity affinityOf(const QString& declaredType);
    static QString affinityName(Affinity affinity); // "INTEGER", "TEXT", "BLOB", "REAL", "NUMERIC"

    // The statement of the schema table itself.
    static QString masterTableSql();
};
