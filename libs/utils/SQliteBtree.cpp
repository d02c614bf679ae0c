#include "SQliteBtree.h"

#include "SQliteDbUtil.h"
#include "SQliteSource.h"

#include <algorithm>
#include <cstring>

using namespace sqlitefmt;

namespace {

// A b-tree deeper than this is a damaged file: the engine's own cursors stop at 20 levels.
constexpr int kDeepest = 40;

} // namespace

SQliteBtree::SQliteBtree(SQliteDbUtil& db) : m_db(db), m_geometry(sqliteGeometry(db)) {
    m_lastPage = db.pages.isEmpty() ? 0 : db.pages.lastKey();
}

bool SQliteBtree::readPage(qint64 pageNo, std::vector<uchar>& out) {
    if (pageNo < 1 || pageNo > m_lastPage || m_geometry.pageSize <= 0) return false;
    SQliteSource& src = sqliteSource(m_db);
    const qint64 pos = m_geometry.pagePosition(pageNo);
    if (!src.canSeek(pos)) return false;
    qint64 got = 0;
    const uchar* p = src.bytes(pos, m_geometry.pageSize, &got);
    if (got != m_geometry.pageSize) return false;
    out.resize(size_t(got + SQliteSource::kPadding));
    std::memcpy(out.data(), p, size_t(got));
    std::fill(out.begin() + got, out.end(), uchar(0));
    return true;
}

bool SQliteBtree::readPayload(const uchar* image, const Cell& cell, std::vector<uchar>& out,
                              std::vector<qint64>* pages, const std::function<bool(qint64)>& accept) {
    out.assign(image + cell.payloadAt, image + cell.payloadAt + cell.local);
    return followChain(cell, &out, pages, accept);
}

bool SQliteBtree::overflowPages(const Cell& cell, std::vector<qint64>& pages,
                                const std::function<bool(qint64)>& accept) {
    return followChain(cell, nullptr, &pages, accept);
}

bool SQliteBtree::followChain(const Cell& cell, std::vector<uchar>* out, std::vector<qint64>* pages,
                              const std::function<bool(qint64)>& accept) {
    if (cell.local >= cell.payloadSize) return true;
    SQliteSource& src = sqliteSource(m_db);
    const qint64 content = m_geometry.usable - kOverflowHeaderSize;
    qint64 left = cell.payloadSize - cell.local;
    walkChain(cell.overflow, [&](qint64 page) -> qint64 {
        if (page > m_lastPage || content <= 0 || (accept && !accept(page))) return 0;
        const qint64 pos = m_geometry.pagePosition(page);
        if (!src.canSeek(pos)) return 0;
        qint64 got = 0;
        const uchar* p = src.bytes(pos, kOverflowHeaderSize + std::min(left, content), &got);
        if (got < kOverflowHeaderSize) return 0;
        const qint64 take = std::min(left, got - kOverflowHeaderSize);
        if (out) out->insert(out->end(), p + kOverflowHeaderSize, p + kOverflowHeaderSize + take);
        if (pages) pages->push_back(page);
        left -= take;
        return left > 0 ? qint64(get32(p)) : 0;
    });
    return left == 0;
}

void SQliteBtree::pageProblem(qint64 pageNo, const QString& why) {
    if (!m_problems.any()) m_problems.first = QString("page %1: %2").arg(pageNo).arg(why);
    ++m_problems.pages;
}

void SQliteBtree::cellProblem(qint64 pageNo, qint64 offset, const QString& why) {
    if (!m_problems.any())
        m_problems.first = QString("page %1, cell at %2: %3").arg(pageNo).arg(offset).arg(why);
    ++m_problems.cells;
}

void SQliteBtree::overflowProblem(qint64 pageNo, qint64 offset) {
    if (!m_problems.any())
        m_problems.first =
            QString("page %1, cell at %2: its overflow chain breaks off").arg(pageNo).arg(offset);
    ++m_problems.overflows;
}

bool SQliteBtree::walk(qint64 root, const Visit& visit, const std::function<void(qint64, int)>& onPage,
                       const std::function<void(int, int)>& progress) {
    struct Level {
        qint64 page = 0;
        int type = 0;
        std::vector<uchar> image;
        std::vector<qint64> cells; // cell offsets
        int next = 0;              // of an interior page: the child being walked, or to walk
        bool descended = false;
    };
    std::vector<Level> stack;
    SeenSet seen;
    bool tableTree = true;
    int levels = 0;
    // Enters page as a child of the tree (or its root): false when it cannot be believed.
    auto enter = [&](qint64 pageNo) -> bool {
        if (stopRequested(m_db)) return false;
        if (stack.size() >= size_t(kDeepest)) return pageProblem(pageNo, "the tree is too deep"), true;
        if (!seen.insert(pageNo)) return pageProblem(pageNo, "met twice in the tree"), true;
        if (levels == int(stack.size())) stack.emplace_back();
        ++levels;
        Level& l = stack[size_t(levels - 1)];
        l.page = pageNo;
        l.next = 0;
        l.descended = false;
        l.cells.clear();
        if (!readPage(pageNo, l.image)) {
            --levels;
            return pageProblem(pageNo, "not in the file"), true;
        }
        const qint64 hdr = btreeHeaderOffset(pageNo);
        l.type = l.image[size_t(hdr)];
        if (levels == 1) tableTree = isTablePage(l.type);
        if (!isBtreePage(l.type) || isTablePage(l.type) != tableTree) {
            --levels;
            return pageProblem(pageNo, QString("a page of type %1 where a %2 b-tree page belongs")
                                           .arg(l.type)
                                           .arg(tableTree ? "table" : "index")),
                   true;
        }
        if (onPage) onPage(pageNo, l.type);
        const qint64 first = hdr + btreeHeaderSize(l.type);
        forEachCellPointer(l.image.data(), m_geometry.usable, hdr, [&](int, qint64 offset) {
            if (offset < first || offset >= m_geometry.usable)
                cellProblem(pageNo, offset, "its pointer lies outside the cell area");
            else
                l.cells.push_back(offset);
            return true;
        });
        return true;
    };
    if (!enter(root)) return false;
    while (levels > 0) {
        Level& l = stack[size_t(levels - 1)];
        Entry e;
        e.page = l.page;
        e.type = l.type;
        e.image = l.image.data();
        if (!isInterior(l.type)) {
            for (qint64 offset : l.cells) {
                if (!readCell(e.image, m_geometry.usable, l.type, offset, e.cell)) {
                    cellProblem(l.page, offset, "it runs past the end of its page");
                    continue;
                }
                if (!visit(e)) return false;
            }
            --levels;
            continue;
        }
        const int count = int(l.cells.size());
        if (l.descended) {
            // Back from the child at next: an index cell follows its left subtree.
            if (l.type == IndexInterior && l.next < count) {
                if (readCell(e.image, m_geometry.usable, l.type, l.cells[size_t(l.next)], e.cell)) {
                    if (!visit(e)) return false;
                } else {
                    cellProblem(l.page, l.cells[size_t(l.next)], "it runs past the end of its page");
                }
            }
            ++l.next;
            l.descended = false;
            if (levels == 1 && progress) progress(l.next, count + 1);
            if (l.next > count) {
                --levels;
                continue;
            }
        }
        qint64 child = 0;
        if (l.next < count) {
            const qint64 offset = l.cells[size_t(l.next)];
            child = offset + 4 <= m_geometry.usable ? get32(e.image + offset) : 0;
        } else {
            child = get32(e.image + btreeHeaderOffset(l.page) + page::RightChild);
        }
        l.descended = true;
        if (child < 1 || child > m_lastPage) {
            pageProblem(child, QString("a child of page %1 outside the database").arg(l.page));
            continue;
        }
        if (!enter(child)) return false;
    }
    return true;
}

std::vector<qint64> SQliteBtree::leafPages(qint64 root) {
    std::vector<qint64> leaves;
    std::vector<qint64> todo{root};
    std::vector<uchar> image;
    SeenSet seen;
    while (!todo.empty()) {
        const qint64 pageNo = todo.back();
        todo.pop_back();
        const auto it = m_db.pages.constFind(int(pageNo));
        if (it == m_db.pages.constEnd() || !seen.insert(pageNo)) continue;
        if (isBtreePage(it->type) && !isInterior(it->type)) {
            leaves.push_back(pageNo);
            continue;
        }
        if (!isInterior(it->type) || !readPage(pageNo, image)) continue;
        const qint64 hdr = btreeHeaderOffset(pageNo);
        const size_t at = todo.size();
        forEachChild(image.data(), m_geometry.usable, hdr, [&](qint64 child) { todo.push_back(child); });
        std::reverse(todo.begin() + qint64(at), todo.end()); // the leftmost child is walked first
    }
    return leaves;
}
