// contact-sheet, placeholder: the placeholder pictures of the chat views.
#include "Command.h"

#include "ChatImageProvider.h"

#include <QDir>
#include <QFileInfo>
#include <QFontMetrics>
#include <QImage>
#include <QJsonArray>
#include <QJsonObject>
#include <QPainter>

#include <utility>

using namespace inspect;

namespace {

const char* const kResourceDir = ":/images";

// The placeholder table of the chat views: key and resource, in the provider's loading order.
const std::pair<const char*, const char*> kPlaceholders[] = {
    {"deleteTag", "tag_delete.png"},
    {"image/default", "chatwindow_image.png"},
    {"video/default", "chatwindow_video.png"},
    {"avatar/default", "default_contact_person.png"},
    {"avatar_me/default", "default_contact_me.png"},
    {"document/default", "qml_txt.png"},
    {"document/zip", "qml_zip.png"},
    {"document/doc", "qml_doc.png"},
    {"document/ppt", "qml_ppt.png"},
    {"document/xls", "qml_xls.png"},
    {"document/pdf", "qml_pdf.png"},
    {"document/txt", "qml_txt.png"},
    {"link/default", "default_link.png"},
    {"audio/me", "default_audio_me.png"},
    {"audio/other", "default_audio_other.png"},
    {"contact/group", "default_contact_group.png"},
    {"contact/person", "default_contact_person.png"},
    {"deletedMsg/default", "default_deletedmsg.png"},
    {"location/default", "default_location.png"},
    {"callMsg/audio", "default_audiocall.png"},
    {"callMsg/video", "default_videocall.png"},
    {"redpacket/default", "default_redpacket.png"},
    {"redpacket/open", "default_redpacket_open.png"},
    {"transfer/default", "default_transfer.png"},
    {"transfer/ok", "default_transfer_ok.png"},
    {"transfer/reject", "default_transfer_reject.png"},
};

// The placeholder keys whose resource is file.
QStringList keysOfFile(const QString& file) {
    QStringList keys;
    for (const auto& entry : kPlaceholders)
        if (file == QLatin1String(entry.second)) keys << entry.first;
    return keys;
}

// The resource file whose picture is exactly image, or an empty string.
QString fileOfImage(const QImage& image) {
    if (image.isNull()) return QString();
    for (const auto& entry : kPlaceholders) {
        const QString file = QString::fromLatin1(entry.second);
        if (QImage(QString(kResourceDir) + "/" + file) == image) return file;
    }
    return QString();
}

bool checkOutputPath(const QString& path, bool force) {
    const QFileInfo info(path);
    if (info.isDir()) return fail(path + ": is a folder"), false;
    if (info.exists() && !force) return fail(path + ": exists already (--force overwrites it)"), false;
    if (!info.absoluteDir().exists()) return fail(path + ": no such folder " + info.absolutePath()), false;
    return true;
}

bool savePng(const QImage& image, const QString& path) {
    if (image.save(path, "png")) return true;
    fail(path + ": cannot write the picture");
    return false;
}

int runContactSheet(const Args& args) {
    bool ok = true;
    int columns = args.value("--columns", "6").toInt(&ok);
    if (!ok || columns < 1 || columns > 64)
        return fail("contact-sheet: --columns takes a number from 1 to 64", Usage);
    const QString outPath = args.positional().at(0);
    if (!checkOutputPath(outPath, args.has("--force"))) return Failed;

    const QStringList files = QDir(kResourceDir).entryList({"*.png"}, QDir::Files, QDir::Name);
    if (files.isEmpty()) return fail("no placeholder pictures under :/images/ in this build");
    columns = qMin(columns, int(files.size())); // no empty columns
    const int icon = 128, cellW = 210, cellH = 210, margin = 20, title = 50;
    const int rows = (files.size() + columns - 1) / columns;
    QImage sheet(margin * 2 + columns * cellW, margin * 2 + title + rows * cellH, QImage::Format_ARGB32);
    sheet.fill(Qt::white);
    QPainter p(&sheet);
    p.setRenderHint(QPainter::Antialiasing);
    p.setRenderHint(QPainter::TextAntialiasing);
    QFont heading;
    heading.setPixelSize(22);
    heading.setBold(true);
    p.setFont(heading);
    p.setPen(QColor(0x26, 0x32, 0x38));
    p.drawText(QRect(margin, margin, sheet.width() - 2 * margin, title), Qt::AlignLeft | Qt::AlignTop,
               QString("Placeholder pictures (%1)").arg(files.size()));
    QFont small;
    small.setPixelSize(12);
    const QFontMetrics metrics(small);

    for (int i = 0; i < files.size(); ++i) {
        const QRect cell(margin + (i % columns) * cellW, margin + title + (i / columns) * cellH, cellW,
                         cellH);
        const QRect frame(cell.x() + (cellW - icon) / 2 - 4, cell.y() + 4, icon + 8, icon + 8);
        // A light checkerboard shows which parts of a picture are transparent.
        for (int y = 0; y < frame.height(); y += 8)
            for (int x = 0; x < frame.width(); x += 8)
                p.fillRect(QRect(frame.x() + x, frame.y() + y, qMin(8, frame.width() - x),
                                 qMin(8, frame.height() - y)),
                           ((x + y) / 8) % 2 ? QColor(0xee, 0xee, 0xee) : Qt::white);
        const QImage image(QString(kResourceDir) + "/" + files.at(i));
        if (!image.isNull()) p.drawImage(QRect(frame.x() + 4, frame.y() + 4, icon, icon), image);
        p.setFont(small);
        p.setPen(QColor(0x26, 0x32, 0x38));
        int y = frame.bottom() + 6;
        p.drawText(QRect(cell.x(), y, cellW, metrics.height()), Qt::AlignHCenter,
                   metrics.elidedText(files.at(i), Qt::ElideMiddle, cellW - 6));
        p.setPen(QColor(0x60, 0x7d, 0x8b));
        for (const QString& key : keysOfFile(files.at(i))) {
            y += metrics.height();
            p.drawText(QRect(cell.x(), y, cellW, metrics.height()), Qt::AlignHCenter, key);
        }
    }
    p.end();
    if (!savePng(sheet, outPath)) return Failed;
    out(QString("%1: %2 pictures, %3 by %4 pixels")
            .arg(outPath)
            .arg(files.size())
            .arg(sheet.width())
            .arg(sheet.height()));
    return Ok;
}

int runPlaceholder(const Args& args) {
    const QString outPath = args.value("--out");
    if (args.has("--out") && args.positional().size() != 1)
        return fail("placeholder: --out goes with a single ID", Usage);
    if (args.has("--out") && !checkOutputPath(outPath, args.has("--force"))) return Failed;

    ChatImageProvider provider;
    QJsonArray results;
    for (const QString& id : args.positional()) {
        const QImage image = provider.requestImage(id);
        const QString file = fileOfImage(image);
        if (args.has("--json")) {
            QJsonObject o;
            o["id"] = id;
            o["resource"] = file.isEmpty() ? QJsonValue() : QJsonValue(QString(kResourceDir) + "/" + file);
            o["width"] = image.width();
            o["height"] = image.height();
            results.append(o);
        } else {
            QString what = "(no picture)";
            if (!file.isEmpty())
                what = QString("%1/%2 (%3)").arg(kResourceDir, file, keysOfFile(file).join(", "));
            else if (!image.isNull())
                what = "(a picture that is not in the placeholder table)";
            out(QString("%1\t%2").arg(id, what));
        }
        if (args.has("--out")) {
            if (image.isNull()) return fail(id + ": no picture to write");
            if (!savePng(image, outPath)) return Failed;
        }
    }
    if (args.has("--json")) printJson(results);
    return Ok;
}

Registration contactSheetReg({"contact-sheet",
                              "OUT.png",
                              "Draws every placeholder picture of the chat views (the resources under\n"
                              ":/images/) into one PNG, each with its file name and the placeholder keys\n"
                              "that use it.",
                              {{"--columns", "N", "pictures per row, 1 to 64 (default 6)"},
                               {"--force", nullptr, "overwrite OUT.png if it exists"}},
                              runContactSheet,
                              true});
Registration placeholderReg({"placeholder",
                             "ID...",
                             "Shows which placeholder picture the chat views show for each picture\n"
                             "identifier (kind/rest, e.g. image/x.jpg, document/report.pdf, transfer/ok)\n"
                             "when the application has registered no picture for it.",
                             {{"--out", "FILE.png", "also write the picture (a single ID only)"},
                              {"--force", nullptr, "overwrite FILE.png if it exists"},
                              {"--json", nullptr, "[{id, resource, width, height}]"}},
                             runPlaceholder,
                             true});

} // namespace
