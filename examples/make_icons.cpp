// Draws the placeholder pictures that the chat views show when a message's own picture is
// missing, and writes them as PNG files together with the Qt resource file that lists them
// under the prefix ":/images/".
//
// Build and run from the repository root:
//   g++ -std=c++17 -fPIC examples/make_icons.cpp $(pkg-config --cflags --libs Qt5Gui) -o /tmp/make_icons
//   QT_QPA_PLATFORM=offscreen /tmp/make_icons examples
// The output is examples/images/*.png and examples/images.qrc; both are kept in the repository.
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <QTextStream>

#include <cmath>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

const int kSize = 128;
const qreal kPi = 3.14159265358979323846;

// A small palette so that the set looks like one family.
const QColor kInk(0x37, 0x47, 0x4f);
const QColor kPaper(0xfa, 0xfa, 0xfa);
const QColor kBlue(0x1e, 0x88, 0xe5);
const QColor kGreen(0x43, 0xa0, 0x47);
const QColor kChatGreen(0x95, 0xec, 0x69);
const QColor kRed(0xe5, 0x39, 0x35);
const QColor kOrange(0xfb, 0x8c, 0x00);
const QColor kAmber(0xff, 0xb3, 0x00);
const QColor kGold(0xff, 0xd5, 0x4f);
const QColor kGrey(0x90, 0xa4, 0xae);
const QColor kLightGrey(0xec, 0xef, 0xf1);
const QColor kPacketRed(0xd8, 0x43, 0x15);

QPen thickPen(const QColor& c, qreal w) {
    return QPen(c, w, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
}

void roundTile(QPainter& p, const QColor& c) {
    p.setPen(Qt::NoPen);
    p.setBrush(c);
    p.drawRoundedRect(QRectF(6, 6, kSize - 12, kSize - 12), 22, 22);
}

void label(QPainter& p, const QRectF& r, const QString& text, const QColor& c, int px) {
    QFont f("DejaVu Sans");
    f.setBold(true);
    f.setPixelSize(px);
    p.setFont(f);
    p.setPen(c);
    p.drawText(r, Qt::AlignCenter, text);
}

// A sheet of paper with a folded corner, a coloured band and a type label.
void document(QPainter& p, const QColor& band, const QString& text) {
    QPainterPath page;
    page.moveTo(24, 8);
    page.lineTo(84, 8);
    page.lineTo(108, 32);
    page.lineTo(108, 120);
    page.lineTo(24, 120);
    page.closeSubpath();
    p.setPen(thickPen(QColor(0xb0, 0xbe, 0xc5), 3));
    p.setBrush(Qt::white);
    p.drawPath(page);
    QPainterPath fold;
    fold.moveTo(84, 8);
    fold.lineTo(84, 32);
    fold.lineTo(108, 32);
    fold.closeSubpath();
    p.setBrush(QColor(0xcf, 0xd8, 0xdc));
    p.drawPath(fold);
    p.setPen(Qt::NoPen);
    p.setBrush(band);
    p.drawRoundedRect(QRectF(14, 70, 84, 34), 6, 6);
    label(p, QRectF(14, 70, 84, 34), text, Qt::white, 22);
    p.setPen(thickPen(QColor(0xcf, 0xd8, 0xdc), 4));
    for (int y = 40; y <= 58; y += 9)
        p.drawLine(QPointF(36, y), QPointF(y == 40 ? 74 : 96, y));
}

void person(QPainter& p, const QPointF& c, qreal scale, const QColor& color) {
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    p.drawEllipse(QPointF(c.x(), c.y() - 14 * scale), 15 * scale, 15 * scale);
    QPainterPath body;
    body.moveTo(c.x() - 30 * scale, c.y() + 32 * scale);
    body.cubicTo(c.x() - 30 * scale, c.y() + 6 * scale, c.x() - 16 * scale, c.y() + 4 * scale, c.x(),
                 c.y() + 4 * scale);
    body.cubicTo(c.x() + 16 * scale, c.y() + 4 * scale, c.x() + 30 * scale, c.y() + 6 * scale,
                 c.x() + 30 * scale, c.y() + 32 * scale);
    body.closeSubpath();
    p.drawPath(body);
}

void avatar(QPainter& p, const QColor& bg) {
    p.setPen(Qt::NoPen);
    p.setBrush(bg);
    p.drawEllipse(QRectF(6, 6, kSize - 12, kSize - 12));
    p.save();
    QPainterPath clip;
    clip.addEllipse(QRectF(6, 6, kSize - 12, kSize - 12));
    p.setClipPath(clip);
    person(p, QPointF(64, 66), 1.5, Qt::white);
    p.restore();
}

// A speech bubble whose tail points left (tailLeft) or right.
QPainterPath bubble(const QRectF& r, bool tailLeft) {
    QPainterPath path;
    path.addRoundedRect(r, 16, 16);
    QPainterPath tail;
    const qreal y = r.center().y();
    if (tailLeft) {
        tail.moveTo(r.left() + 2, y - 9);
        tail.lineTo(r.left() - 12, y);
        tail.lineTo(r.left() + 2, y + 9);
    } else {
        tail.moveTo(r.right() - 2, y - 9);
        tail.lineTo(r.right() + 12, y);
        tail.lineTo(r.right() - 2, y + 9);
    }
    tail.closeSubpath();
    return path.united(tail);
}

// Three arcs of a sound wave opening towards the given side.
void waves(QPainter& p, const QPointF& origin, bool openRight, const QColor& c) {
    p.setPen(thickPen(c, 6));
    p.setBrush(Qt::NoBrush);
    const int start = openRight ? -45 * 16 : 135 * 16;
    p.setBrush(c);
    p.setPen(Qt::NoPen);
    p.drawEllipse(origin, 5, 5);
    p.setBrush(Qt::NoBrush);
    p.setPen(thickPen(c, 6));
    for (int r = 16; r <= 32; r += 16)
        p.drawArc(QRectF(origin.x() - r, origin.y() - r, 2 * r, 2 * r), start, 90 * 16);
}

void handset(QPainter& p, const QColor& c) {
    QPainterPath path;
    path.moveTo(36, 30);
    path.cubicTo(30, 36, 30, 56, 48, 78);
    path.cubicTo(66, 98, 86, 100, 96, 92);
    path.lineTo(86, 76);
    path.lineTo(74, 80);
    path.cubicTo(66, 76, 54, 64, 50, 54);
    path.lineTo(54, 42);
    path.closeSubpath();
    p.setPen(thickPen(c, 10));
    p.setBrush(c);
    p.drawPath(path);
}

void camera(QPainter& p, const QColor& c) {
    p.setPen(Qt::NoPen);
    p.setBrush(c);
    p.drawRoundedRect(QRectF(22, 42, 58, 44), 10, 10);
    QPolygonF lens;
    lens << QPointF(84, 58) << QPointF(106, 44) << QPointF(106, 84) << QPointF(84, 70);
    p.drawPolygon(lens);
}

void check(QPainter& p, const QPointF& c, qreal s, const QColor& color) {
    p.setPen(thickPen(color, 9 * s));
    p.setBrush(Qt::NoBrush);
    QPolygonF mark;
    mark << QPointF(c.x() - 18 * s, c.y()) << QPointF(c.x() - 5 * s, c.y() + 14 * s)
         << QPointF(c.x() + 20 * s, c.y() - 14 * s);
    p.drawPolyline(mark);
}

void cross(QPainter& p, const QPointF& c, qreal r, const QColor& color, qreal width) {
    p.setPen(thickPen(color, width));
    p.drawLine(QPointF(c.x() - r, c.y() - r), QPointF(c.x() + r, c.y() + r));
    p.drawLine(QPointF(c.x() - r, c.y() + r), QPointF(c.x() + r, c.y() - r));
}

void exchangeArrows(QPainter& p, const QColor& c) {
    p.setPen(thickPen(c, 8));
    p.setBrush(Qt::NoBrush);
    p.drawLine(QPointF(34, 50), QPointF(94, 50));
    p.drawPolyline(QPolygonF() << QPointF(80, 36) << QPointF(94, 50) << QPointF(80, 64));
    p.drawLine(QPointF(94, 80), QPointF(34, 80));
    p.drawPolyline(QPolygonF() << QPointF(48, 66) << QPointF(34, 80) << QPointF(48, 94));
}

void envelope(QPainter& p, bool open) {
    p.setPen(Qt::NoPen);
    p.setBrush(kPacketRed);
    p.drawRoundedRect(QRectF(24, 10, 80, 108), 10, 10);
    QPainterPath flap;
    if (open) {
        // The flap is folded back: a lighter cap above a darker inside.
        p.setBrush(QColor(0xbf, 0x36, 0x0c));
        p.drawRoundedRect(QRectF(24, 10, 80, 40), 10, 10);
        flap.moveTo(24, 40);
        flap.quadTo(64, 8, 104, 40);
        flap.lineTo(104, 46);
        flap.lineTo(24, 46);
        flap.closeSubpath();
        p.setBrush(QColor(0xff, 0x70, 0x43));
        p.drawPath(flap);
        p.setBrush(kGold);
        p.drawEllipse(QPointF(64, 84), 18, 18);
        label(p, QRectF(46, 66, 36, 36), "\u00a5", QColor(0xbf, 0x36, 0x0c), 24);
    } else {
        flap.moveTo(24, 20);
        flap.lineTo(24, 46);
        flap.quadTo(64, 70, 104, 46);
        flap.lineTo(104, 20);
        flap.quadTo(104, 10, 94, 10);
        flap.lineTo(34, 10);
        flap.quadTo(24, 10, 24, 20);
        p.setBrush(QColor(0xf4, 0x51, 0x1e));
        p.drawPath(flap);
        p.setBrush(kGold);
        p.drawEllipse(QPointF(64, 58), 15, 15);
        label(p, QRectF(49, 43, 30, 30), "\u00a5", QColor(0xbf, 0x36, 0x0c), 20);
    }
}

struct Icon {
    QString file;
    std::function<void(QPainter&)> draw;
};

std::vector<Icon> icons() {
    return {
        {"tag_delete.png",
         [](QPainter& p) {
             // A price-tag shape with a cross: "this record was deleted".
             QPainterPath tag;
             tag.moveTo(14, 64);
             tag.lineTo(42, 30);
             tag.lineTo(114, 30);
             tag.lineTo(114, 98);
             tag.lineTo(42, 98);
             tag.closeSubpath();
             p.setPen(Qt::NoPen);
             p.setBrush(kRed);
             p.drawPath(tag);
             p.setBrush(Qt::white);
             p.drawEllipse(QPointF(38, 64), 6, 6);
             cross(p, QPointF(80, 64), 16, Qt::white, 9);
         }},
        {"chatwindow_image.png",
         [](QPainter& p) {
             roundTile(p, kLightGrey);
             p.setPen(thickPen(kGrey, 5));
             p.setBrush(Qt::white);
             p.drawRoundedRect(QRectF(18, 26, 92, 76), 8, 8);
             p.setPen(Qt::NoPen);
             p.setBrush(kAmber);
             p.drawEllipse(QPointF(84, 48), 9, 9);
             p.setBrush(kGreen);
             p.drawPolygon(QPolygonF() << QPointF(22, 98) << QPointF(52, 56) << QPointF(78, 98));
             p.setBrush(QColor(0x2e, 0x7d, 0x32));
             p.drawPolygon(QPolygonF() << QPointF(58, 98) << QPointF(80, 70) << QPointF(106, 98));
         }},
        {"chatwindow_video.png",
         [](QPainter& p) {
             roundTile(p, kInk);
             p.setPen(Qt::NoPen);
             p.setBrush(QColor(0x54, 0x6e, 0x7a));
             for (int x = 20; x <= 100; x += 16) {
                 p.drawRect(QRectF(x, 14, 8, 10));
                 p.drawRect(QRectF(x, 104, 8, 10));
             }
             p.setBrush(Qt::white);
             p.drawEllipse(QPointF(64, 64), 26, 26);
             p.setBrush(kInk);
             p.drawPolygon(QPolygonF() << QPointF(56, 50) << QPointF(80, 64) << QPointF(56, 78));
         }},
        {"default_contact_person.png", [](QPainter& p) { avatar(p, kGrey); }},
        {"default_contact_me.png",
         [](QPainter& p) {
             avatar(p, kGreen);
             p.setPen(thickPen(Qt::white, 3));
             p.setBrush(kGold);
             QPolygonF star;
             for (int i = 0; i < 10; ++i) {
                 const qreal r = (i % 2) ? 6 : 14;
                 const qreal a = -kPi / 2 + i * kPi / 5;
                 star << QPointF(100 + r * std::cos(a), 28 + r * std::sin(a));
             }
             p.drawPolygon(star);
         }},
        {"qml_txt.png", [](QPainter& p) { document(p, kGrey, "TXT"); }},
        {"qml_zip.png",
         [](QPainter& p) {
             document(p, kAmber, "ZIP");
             p.setPen(Qt::NoPen);
             p.setBrush(kInk);
             // Zipper teeth down the left side of the page.
             for (int k = 0; k < 8; ++k)
                 p.drawRect(QRectF(k % 2 ? 30 : 36, 14 + k * 6, 6, 4));
         }},
        {"qml_doc.png", [](QPainter& p) { document(p, kBlue, "DOC"); }},
        {"qml_ppt.png", [](QPainter& p) { document(p, kOrange, "PPT"); }},
        {"qml_xls.png", [](QPainter& p) { document(p, kGreen, "XLS"); }},
        {"qml_pdf.png", [](QPainter& p) { document(p, kRed, "PDF"); }},
        {"default_link.png",
         [](QPainter& p) {
             roundTile(p, kLightGrey);
             p.setBrush(Qt::NoBrush);
             p.setPen(thickPen(kBlue, 10));
             p.translate(64, 64);
             p.rotate(-45);
             p.drawRoundedRect(QRectF(-44, -14, 50, 28), 14, 14);
             p.drawRoundedRect(QRectF(-6, -14, 50, 28), 14, 14);
             p.resetTransform();
         }},
        {"default_audio_me.png",
         [](QPainter& p) {
             p.setPen(Qt::NoPen);
             p.setBrush(kChatGreen);
             p.drawPath(bubble(QRectF(10, 28, 96, 72), false));
             waves(p, QPointF(80, 64), false, kInk);
         }},
        {"default_audio_other.png",
         [](QPainter& p) {
             p.setPen(thickPen(QColor(0xcf, 0xd8, 0xdc), 2));
             p.setBrush(Qt::white);
             p.drawPath(bubble(QRectF(22, 28, 96, 72), true));
             waves(p, QPointF(46, 64), true, kInk);
         }},
        {"default_contact_group.png",
         [](QPainter& p) {
             roundTile(p, kBlue);
             person(p, QPointF(36, 64), 0.8, QColor(0xbb, 0xde, 0xfb));
             person(p, QPointF(92, 64), 0.8, QColor(0xbb, 0xde, 0xfb));
             person(p, QPointF(64, 70), 1.1, Qt::white);
         }},
        {"default_deletedmsg.png",
         [](QPainter& p) {
             p.setPen(thickPen(QColor(0xcf, 0xd8, 0xdc), 2));
             p.setBrush(Qt::white);
             p.drawPath(bubble(QRectF(22, 20, 96, 70), true));
             p.setPen(thickPen(kGrey, 5));
             p.drawLine(QPointF(40, 44), QPointF(100, 44));
             p.drawLine(QPointF(40, 62), QPointF(84, 62));
             p.setPen(Qt::NoPen);
             p.setBrush(kRed);
             p.drawEllipse(QPointF(96, 96), 22, 22);
             cross(p, QPointF(96, 96), 9, Qt::white, 6);
         }},
        {"default_location.png",
         [](QPainter& p) {
             roundTile(p, QColor(0xe8, 0xf5, 0xe9));
             p.setPen(thickPen(QColor(0xc8, 0xe6, 0xc9), 6));
             p.drawLine(QPointF(6, 88), QPointF(122, 70));
             p.drawLine(QPointF(40, 6), QPointF(58, 122));
             QPainterPath pin;
             pin.moveTo(64, 112);
             pin.cubicTo(40, 80, 34, 66, 34, 52);
             pin.arcTo(QRectF(34, 22, 60, 60), 180, -180);
             pin.cubicTo(94, 66, 88, 80, 64, 112);
             p.setPen(Qt::NoPen);
             p.setBrush(kRed);
             p.drawPath(pin);
             p.setBrush(Qt::white);
             p.drawEllipse(QPointF(64, 52), 11, 11);
         }},
        {"default_audiocall.png",
         [](QPainter& p) {
             roundTile(p, kGreen);
             handset(p, Qt::white);
         }},
        {"default_videocall.png",
         [](QPainter& p) {
             roundTile(p, kBlue);
             camera(p, Qt::white);
         }},
        {"default_redpacket.png", [](QPainter& p) { envelope(p, false); }},
        {"default_redpacket_open.png", [](QPainter& p) { envelope(p, true); }},
        {"default_transfer.png",
         [](QPainter& p) {
             roundTile(p, kOrange);
             exchangeArrows(p, Qt::white);
         }},
        {"default_transfer_ok.png",
         [](QPainter& p) {
             roundTile(p, kOrange);
             p.setPen(thickPen(Qt::white, 6));
             p.setBrush(Qt::NoBrush);
             p.drawEllipse(QPointF(64, 64), 36, 36);
             check(p, QPointF(64, 66), 1.2, Qt::white);
         }},
        {"default_transfer_reject.png",
         [](QPainter& p) {
             roundTile(p, QColor(0xff, 0xcc, 0x80));
             p.setPen(thickPen(Qt::white, 6));
             p.setBrush(Qt::NoBrush);
             p.drawEllipse(QPointF(64, 64), 36, 36);
             // A return arrow: the money goes back.
             p.setPen(thickPen(Qt::white, 8));
             QPainterPath back;
             back.moveTo(82, 80);
             back.lineTo(82, 66);
             back.quadTo(82, 54, 70, 54);
             back.lineTo(46, 54);
             p.drawPath(back);
             p.drawPolyline(QPolygonF() << QPointF(58, 42) << QPointF(46, 54) << QPointF(58, 66));
         }},
    };
}

} // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    const QString root = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString("examples");
    QDir dir(root);
    if (!dir.mkpath("images")) {
        std::fprintf(stderr, "make_icons: cannot create %s/images\n", qPrintable(root));
        return 1;
    }
    QStringList files;
    for (const Icon& icon : icons()) {
        QImage image(kSize, kSize, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setRenderHint(QPainter::TextAntialiasing);
        icon.draw(painter);
        painter.end();
        const QString path = dir.filePath("images/" + icon.file);
        if (!image.convertToFormat(QImage::Format_ARGB32).save(path, "png")) {
            std::fprintf(stderr, "make_icons: cannot write %s\n", qPrintable(path));
            return 1;
        }
        files << icon.file;
    }
    files.sort();
    QFile qrc(dir.filePath("images.qrc"));
    if (!qrc.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        std::fprintf(stderr, "make_icons: cannot write %s\n", qPrintable(qrc.fileName()));
        return 1;
    }
    QTextStream out(&qrc);
    out << "<!DOCTYPE RCC>\n<RCC version=\"1.0\">\n    <qresource prefix=\"/images\">\n";
    for (const QString& f : files)
        out << "        <file alias=\"" << f << "\">images/" << f << "</file>\n";
    out << "    </qresource>\n</RCC>\n";
    std::printf("wrote %d pictures to %s\n", int(files.size()), qPrintable(dir.filePath("images")));
    return 0;
}
