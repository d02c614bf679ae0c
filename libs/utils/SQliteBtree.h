// The b-trees of a loaded SQliteDbUtil as the engine reads them: pages copied from the file
// through the reader's cache and checked before they are believed (whole in the file, of the
// tree's kind, met once), cells checked against their page, payloads assembled from their
// overflow chains, and walks in key order, interior cells of index trees included. What does
// not check out is skipped and counted. Internal to the library.
#pragma once

#include "SQliteFormat.h"

#include <QString>

#include <functional>
#include <vector>

class SQliteDbUtil;
class SQliteSource;

class SQliteBtree {
public:
    explicit SQliteBtree(SQliteDbUtil& db);

    const sqlitefmt::Geometry& geometry() const { return m_geometry; }
    // The last page of the database as loaded.
    qint64 lastPage() const { return m_lastPage; }

    // Copies page pageNo into out (pageSize bytes and a little zero padding); false when it lies
    // outside the database or is not whole in the file.
    bool readPage(qint64 pageNo, std::vector<uchar>& out);

    // The payload of a cell of image: its local part, then its overflow pages, pageNo by pageNo,
    // up to the cell's payload size. Each overflow page is offered to accept(page) first (none:
    // any page of the database). pages, when given, receives the overflow pages read. False when
    // the chain ended before the payload was whole; out then holds what was read.
    bool readPayload(const uchar* image, const sqlitefmt::Cell& cell, std::vector<uchar>& out,
                     std::vector<qint64>* pages = nullptr, const std::function<bool(qint64)>& accept = {});
    // The same walk of the overflow chain for its pages alone: nothing is copied.
    bool overflowPages(const sqlitefmt::Cell& cell, std::vector<qint64>& pages,
                       const std::function<bool(qint64)>& accept = {});

    struct Problems {
        int pages = 0;     // pages of a tree that could not be believed
        int cells = 0;     // cells that do not fit their page
        int overflows = 0; // overflow chains that broke off
        QString first;     // the first of them, described
        bool any() const { return pages || cells || overflows; }
    };
    const Problems& problems() const { return m_problems; }
    void pageProblem(qint64 pageNo, const QString& why);
    void cellProblem(qint64 pageNo, qint64 offset, const QString& why);
    void overflowProblem(qint64 pageNo, qint64 offset);

    // One cell of a walk: the page it lies on and its image.
    struct Entry {
        qint64 page = 0;
        int type = 0;
        const uchar* image = nullptr;
        sqlitefmt::Cell cell;
    };
    using Visit = std::function<bool(const Entry& entry)>;
    // Walks the tree under root in key order and hands visit every cell that holds a record:
    // those of table leaves, or of index pages (an interior cell after the subtree to its
    // left). onPage, when given, is told of every page of the tree as it is entered. progress
    // is told how many of the root's children are done. Returns false when visit or the
    // reader's stop flag (checked before each page) ended it.
    bool walk(qint64 root, const Visit& visit, const std::function<void(qint64 page, int type)>& onPage = {},
              const std::function<void(int done, int total)>& progress = {});

    // The leaf pages of the tree under root, left to right, found through its interior pages
    // alone (the types of the others come from the reader's page index).
    std::vector<qint64> leafPages(qint64 root);

private:
    bool followChain(const sqlitefmt::Cell& cell, std::vector<uchar>* out, std::vector<qint64>* pages,
                     const std::function<bool(qint64)>& accept);
    SQliteDbUtil& m_db;
    sqlitefmt::Geometry m_geometry;
    qint64 m_lastPage = 0;
    Problems m_problems;
};
