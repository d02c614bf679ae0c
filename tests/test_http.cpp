// The blocking HTTP client, the reply helpers, the reply blocker and the cookie jar, against a
// server on 127.0.0.1 that each test starts itself.
#include "LocalHttpServer.h"

#include "NetworkBlocker.h"
#include "QArchivedCookieJar.h"
#include "QHttpClient.h"
#include "QHttpUtils.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

// Compresses with zlib: window bits 31 gives gzip, 15 a zlib stream, -15 raw deflate.
QByteArray squeeze(const QByteArray& data, int windowBits) {
    z_stream s{};
    deflateInit2(&s, Z_BEST_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
    QByteArray out(int(deflateBound(&s, uLong(data.size()))) + 32, '\0');
    s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.constData()));
    s.avail_in = uInt(data.size());
    s.next_out = reinterpret_cast<Bytef*>(out.data());
    s.avail_out = uInt(out.size());
    deflate(&s, Z_FINISH);
    out.resize(int(s.total_out));
    deflateEnd(&s);
    return out;
}

// The request headers an application sends when it undoes the content encoding itself (Qt then
// leaves compressed bodies as they are).
const QMap<QString, QString> kAcceptCompressed{{"Accept-Encoding", "gzip, deflate"}};

class HttpTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }
    QUrl url(const QString& target) const { return QUrl(server.url(target)); }

    LocalHttpServer server;
};

// A jar that shows everything it holds, expired cookies included.
class OpenJar : public QArchivedCookieJar {
public:
    using QArchivedCookieJar::allCookies;
    using QArchivedCookieJar::setAllCookies;
};

} // namespace

TEST_F(HttpTest, BodiesAreDecodedByTheirMagicBytes) {
    const QByteArray text = QByteArray("The quick brown fox jumps over the lazy dog. ").repeated(50);
    server.route("/gzip", CannedResponse{200, "OK", {{"Content-Encoding", "gzip"}}, squeeze(text, 31), 0});
    server.route("/GZIP", CannedResponse{200, "OK", {{"Content-Encoding", "GZIP"}}, squeeze(text, 31), 0});
    server.route("/deflate-gzip",
                 CannedResponse{200, "OK", {{"Content-Encoding", "deflate"}}, squeeze(text, 31), 0});
    server.route("/deflate-zlib",
                 CannedResponse{200, "OK", {{"Content-Encoding", "Deflate"}}, squeeze(text, 15), 0});
    server.route("/gzip-zlib",
                 CannedResponse{200, "OK", {{"Content-Encoding", "gzip"}}, squeeze(text, 15), 0});
    server.route("/deflate-raw",
                 CannedResponse{200, "OK", {{"Content-Encoding", "deflate"}}, squeeze(text, -15), 0});
    server.route("/br", CannedResponse{200, "OK", {{"Content-Encoding", "br"}}, squeeze(text, 31), 0});
    server.route("/plain", CannedResponse{200, "OK", {}, text, 0});
    server.route("/empty-gzip", CannedResponse{200, "OK", {{"Content-Encoding", "gzip"}}, QByteArray(), 0});

    QHttpClient client;
    struct Case {
        const char* target;
        bool compressed;
        QByteArray expected;
    } cases[] = {
        {"/gzip", true, text},
        {"/GZIP", true, text},             // the header's word is compared in any letter case
        {"/deflate-gzip", true, text},     // labelled deflate, but the gzip magic decides
        {"/deflate-zlib", true, text},     // the usual meaning of "deflate": a zlib stream
        {"/gzip-zlib", true, text},        // labelled gzip without the magic: read as a zlib stream
        {"/deflate-raw", true, {}},        // raw deflate without the zlib header is not understood
        {"/br", false, squeeze(text, 31)}, // other encodings are returned as sent
        {"/plain", false, text},
        {"/empty-gzip", true, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.target);
        QNetworkReply* reply = client.get(url(c.target), kAcceptCompressed);
        ASSERT_NE(reply, nullptr);
        EXPECT_TRUE(reply->isFinished());
        EXPECT_EQ(QHttpUtils::statusCode(reply), 200);
        EXPECT_EQ(QHttpUtils::isCompressed(reply), c.compressed);
        EXPECT_EQ(QHttpUtils::readAllEx(reply, true), c.expected);
        // The body has been consumed; a second read finds nothing.
        EXPECT_TRUE(QHttpUtils::readAllEx(reply, false).isEmpty());
        delete reply;
    }
    EXPECT_EQ(server.requests().first().headers.value("accept-encoding"), QByteArray("gzip, deflate"));
}

TEST_F(HttpTest, ErrorsStatusCodesAndJson) {
    server.route("/missing", CannedResponse{404, "Not Found", {}, "{\"error\": \"gone\"}", 0});
    server.route("/json",
                 CannedResponse{200, "OK", {{"Content-Type", "application/json"}}, "{\"a\": [1, 2]}", 0});
    server.route("/text", CannedResponse{200, "OK", {}, "not json", 0});
    server.route(
        "/json-gzip",
        CannedResponse{200, "OK", {{"Content-Encoding", "gzip"}}, squeeze("{\"zipped\": true}", 31), 0});
    QHttpClient client;

    QNetworkReply* reply = client.get(url("/missing"), {});
    EXPECT_EQ(QHttpUtils::statusCode(reply), 404);
    EXPECT_NE(reply->error(), QNetworkReply::NoError);
    EXPECT_TRUE(QHttpUtils::readAllEx(reply, true).isEmpty());
    EXPECT_EQ(QHttpUtils::readAllEx(reply, false), QByteArray("{\"error\": \"gone\"}"));
    delete reply;
    reply = client.get(url("/missing"), {});
    EXPECT_TRUE(QHttpUtils::readJson(reply, true).isNull());
    delete reply;
    reply = client.get(url("/missing"), {});
    EXPECT_EQ(QHttpUtils::readJson(reply, false).object().value("error").toString(), QString("gone"));
    delete reply;

    reply = client.get(url("/json"), {});
    const QJsonDocument doc = QHttpUtils::readJson(reply, true);
    ASSERT_TRUE(doc.isObject());
    EXPECT_EQ(doc.object().value("a").toArray().size(), 2);
    delete reply;
    reply = client.get(url("/text"), {});
    EXPECT_TRUE(QHttpUtils::readJson(reply, true).isNull());
    delete reply;
    reply = client.get(url("/json-gzip"), kAcceptCompressed);
    EXPECT_TRUE(QHttpUtils::readJson(reply, true).object().value("zipped").toBool());
    delete reply;

    // A port that nobody listens on: no HTTP response, so no status.
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const quint16 port = closed.serverPort();
    closed.close();
    reply = client.get(QUrl(QString("http://127.0.0.1:%1/").arg(port)), {});
    EXPECT_EQ(reply->error(), QNetworkReply::ConnectionRefusedError);
    EXPECT_EQ(QHttpUtils::statusCode(reply), 0);
    EXPECT_TRUE(QHttpUtils::readAllEx(reply, true).isEmpty());
    delete reply;
}

TEST_F(HttpTest, RequestsCarryHeadersAndIndentedJsonBodies) {
    const QNetworkRequest request =
        QHttpUtils::makeRequest(QUrl("http://127.0.0.1/x"), {{"X-B", "2"}, {"X-A", "é"}, {"Accept", "*/*"}});
    EXPECT_EQ(request.url(), QUrl("http://127.0.0.1/x"));
    EXPECT_EQ(request.rawHeaderList(), (QList<QByteArray>{"Accept", "X-A", "X-B"})); // key order
    EXPECT_EQ(request.rawHeader("X-A"), QString("é").toUtf8());

    server.route("/echo", CannedResponse{201, "Created", {}, "done", 0});
    QHttpClient client;
    const QJsonObject body{{"name", "value"}, {"n", 3}};
    QNetworkReply* reply =
        client.post(url("/echo"), {{"X-Token", "t1"}, {"Content-Type", "application/json"}}, body);
    EXPECT_EQ(QHttpUtils::statusCode(reply), 201);
    EXPECT_EQ(QHttpUtils::readAllEx(reply, true), QByteArray("done"));
    delete reply;
    reply = client.put(url("/echo?v=1"), {{"X-Token", "t2"}}, body);
    EXPECT_EQ(QHttpUtils::statusCode(reply), 201);
    delete reply;
    reply = client.put(QHttpUtils::makeRequest(url("/echo"), {}), QByteArray("raw bytes"));
    delete reply;
    reply = client.post(QHttpUtils::makeRequest(url("/echo"), {}), QByteArray("form=1"));
    delete reply;
    reply = client.get(QNetworkRequest(url("/echo")));
    EXPECT_EQ(QHttpUtils::readAllEx(reply, false), QByteArray("done"));
    delete reply;

    const QList<ReceivedRequest>& seen = server.requests();
    ASSERT_EQ(seen.size(), 5);
    EXPECT_EQ(seen[0].method, QByteArray("POST"));
    EXPECT_EQ(seen[0].body, QJsonDocument(body).toJson()); // the indented form
    EXPECT_TRUE(seen[0].body.contains("\n    \"n\": 3"));
    EXPECT_EQ(seen[0].headers.value("x-token"), QByteArray("t1"));
    EXPECT_EQ(seen[0].headers.value("content-type"), QByteArray("application/json"));
    EXPECT_EQ(seen[1].method, QByteArray("PUT"));
    EXPECT_EQ(seen[1].target, QByteArray("/echo?v=1"));
    EXPECT_EQ(seen[1].body, QJsonDocument(body).toJson());
    EXPECT_EQ(seen[2].method, QByteArray("PUT"));
    EXPECT_EQ(seen[2].body, QByteArray("raw bytes"));
    EXPECT_EQ(seen[3].method, QByteArray("POST"));
    EXPECT_EQ(seen[3].body, QByteArray("form=1"));
    EXPECT_EQ(seen[4].method, QByteArray("GET"));
}

TEST_F(HttpTest, TimeoutAppliesUntilClearCache) {
    server.route("/slow", CannedResponse{200, "OK", {}, "late", 700});
    QHttpClient client;
    client.setTimeout(100);
    QElapsedTimer timer;
    timer.start();
    QNetworkReply* reply = client.get(url("/slow"), {});
    EXPECT_NE(reply->error(), QNetworkReply::NoError);
    EXPECT_LT(timer.elapsed(), 650);
    EXPECT_TRUE(QHttpUtils::readAllEx(reply, true).isEmpty());
    delete reply;

    // The fresh manager has no time-out: the slow answer arrives.
    client.clearCache();
    reply = client.get(url("/slow"), {});
    EXPECT_EQ(reply->error(), QNetworkReply::NoError);
    EXPECT_EQ(QHttpUtils::readAllEx(reply, true), QByteArray("late"));
    delete reply;

    // A reply the caller kept goes away with the old manager.
    QPointer<QNetworkReply> kept = client.get(url("/slow"), {});
    ASSERT_FALSE(kept.isNull());
    client.clearCache();
    EXPECT_TRUE(kept.isNull());
}

TEST_F(HttpTest, NetworkBlockerWaitsAndAborts) {
    server.route("/slow", CannedResponse{200, "OK", {}, "late", 3000});
    server.route("/fast", CannedResponse{200, "OK", {}, "quick", 0});
    QNetworkAccessManager manager;
    NetworkBlocker blocker;
    blocker.abort(); // nothing under way: nothing happens

    QSharedPointer<QNetworkReply> fast(manager.get(QNetworkRequest(url("/fast"))));
    blocker.wait(fast);
    EXPECT_TRUE(fast->isFinished());
    EXPECT_EQ(fast->readAll(), QByteArray("quick"));
    blocker.wait(fast); // already finished: returns at once

    QSharedPointer<QNetworkReply> slow(manager.get(QNetworkRequest(url("/slow"))));
    QTimer::singleShot(50, &blocker, [&blocker] { blocker.abort(); });
    QElapsedTimer timer;
    timer.start();
    blocker.wait(slow);
    EXPECT_LT(timer.elapsed(), 2500);
    EXPECT_TRUE(slow->isFinished());
    EXPECT_EQ(slow->error(), QNetworkReply::OperationCanceledError);
    blocker.abort(); // the wait is over; the stored reply is gone
}

TEST_F(HttpTest, ClientCookiesStayOutOfTheMemberJar) {
    server.route("/login",
                 CannedResponse{200, "OK", {{"Set-Cookie", "sid=abc123; Path=/; HttpOnly"}}, "hi", 0});
    server.route("/page", CannedResponse{200, "OK", {}, "page", 0});
    QHttpClient client;
    QNetworkReply* reply = client.get(url("/login"), {});
    const QList<QNetworkCookie> sent =
        reply->header(QNetworkRequest::SetCookieHeader).value<QList<QNetworkCookie>>();
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent.first().name(), QByteArray("sid"));
    delete reply;
    EXPECT_TRUE(client.cookieJar()->cookiesForUrl(url("/")).isEmpty());

    // The manager remembers the cookie by itself until clearCache.
    delete client.get(url("/page"), {});
    EXPECT_EQ(server.requests().last().headers.value("cookie"), QByteArray("sid=abc123"));
    client.clearCache();
    delete client.get(url("/page"), {});
    EXPECT_FALSE(server.requests().last().headers.contains("cookie"));
}

TEST(CookieJar, SaveAndLoad) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath("cookies.txt");
    const QUrl site("http://127.0.0.1/");

    OpenJar jar;
    QList<QNetworkCookie> cookies = QNetworkCookie::parseCookies("sid=abc; Path=/; HttpOnly");
    cookies +=
        QNetworkCookie::parseCookies("pref=dark mode; Expires=Wed, 01 Jan 2200 00:00:00 GMT; Path=/; Secure");
    cookies += QNetworkCookie::parseCookies("old=1; Expires=Thu, 01 Jan 1970 00:00:10 GMT; Path=/");
    for (QNetworkCookie& c : cookies)
        c.setDomain("127.0.0.1");
    jar.setAllCookies(cookies); // insertCookie would refuse the expired one
    ASSERT_EQ(jar.allCookies().size(), 3);
    ASSERT_TRUE(jar.save(path));

    // One base64 line per cookie, nothing else; expired cookies are written too.
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = file.readAll().split('\n');
    file.close();
    ASSERT_EQ(lines.size(), 4);
    EXPECT_TRUE(lines.last().isEmpty());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(QByteArray::fromBase64(lines[i]), jar.allCookies()[i].toRawForm(QNetworkCookie::Full));

    // Loading merges into what the jar holds and replaces same-named cookies.
    OpenJar other;
    QNetworkCookie keep("keep", "1");
    keep.setDomain("127.0.0.1");
    keep.setPath("/");
    QNetworkCookie replaced("sid", "stale");
    replaced.setDomain("127.0.0.1");
    replaced.setPath("/");
    other.insertCookie(keep);
    other.insertCookie(replaced);
    ASSERT_TRUE(other.load(path));
    EXPECT_EQ(other.allCookies().size(), 3); // keep, sid, pref
    QMap<QByteArray, QNetworkCookie> byName;
    for (const QNetworkCookie& c : other.allCookies())
        byName[c.name()] = c;
    EXPECT_EQ(byName.value("sid").value(), QByteArray("abc"));
    EXPECT_TRUE(byName.value("sid").isSessionCookie());
    EXPECT_TRUE(byName.value("sid").isHttpOnly());
    EXPECT_EQ(byName.value("pref").value(), QByteArray("dark mode"));
    EXPECT_TRUE(byName.value("pref").isSecure());
    EXPECT_EQ(byName.value("pref").expirationDate().date().year(), 2200);
    // The expired cookie was in the file; the base jar refuses it on insertion.
    EXPECT_FALSE(byName.contains("old"));
    QStringList forUrl;
    for (const QNetworkCookie& c : other.cookiesForUrl(site))
        forUrl << QString(c.name());
    forUrl.sort();
    EXPECT_EQ(forUrl, (QStringList{"keep", "sid"})); // pref is secure, the URL is not

    // Undecodable words are skipped; the rest of the file is still read.
    ASSERT_TRUE(file.open(QIODevice::Append));
    file.write("!!!notbase64!!!\n" + QByteArray("=").toBase64() + "\n");
    file.write(QNetworkCookie("late", "2").toRawForm().toBase64() + "\n");
    file.close();
    OpenJar third;
    ASSERT_TRUE(third.load(path));
    EXPECT_EQ(third.allCookies().size(), 3); // sid, pref, late

    // An empty jar truncates the file; an empty file loads nothing.
    OpenJar empty;
    EXPECT_TRUE(empty.save(path));
    EXPECT_EQ(QFileInfo(path).size(), 0);
    EXPECT_TRUE(empty.load(path));
    EXPECT_TRUE(empty.allCookies().isEmpty());

    // Only a file that cannot be opened is a failure.
    EXPECT_FALSE(empty.load(dir.filePath("missing.txt")));
    EXPECT_FALSE(empty.save(dir.filePath("no/such/folder/cookies.txt")));
    EXPECT_FALSE(empty.save(dir.path()));
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

#include "moc_LocalHttpServer.cpp"
