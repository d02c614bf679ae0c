// The blocking HTTP client, reply helpers, reply blocker and cookie file, against a local server.
#include "LocalHttpServer.h"
#include "TestSupport.h"

#include "NetworkBlocker.h"
#include "QHttpClient.h"
#include "QHttpUtils.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkCookie>
#include <QPointer>

namespace {

// An application that undoes the encoding itself asks for it (Qt then leaves the body alone).
const QMap<QString, QString> kAccept{{"Accept-Encoding", "gzip, deflate"}};

class OpenJar : public QArchivedCookieJar {
public:
    using QArchivedCookieJar::allCookies;
    using QArchivedCookieJar::setAllCookies;
};

class HttpTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }
    QUrl url(const QString& target) const { return QUrl(server.url(target)); }
    LocalHttpServer server;
    QHttpClient client;
};

} // namespace

TEST_F(HttpTest, BodiesAreDecodedByTheirMagicBytes) {
    const QByteArray text = QByteArray("The quick brown fox jumps over the lazy dog. ").repeated(50);
    const struct {
        const char *target, *encoding;
        QByteArray body, expected;
    } cases[] = {
        {"/gzip", "gzip", deflated(text, 31), text},
        {"/GZIP", "GZIP", deflated(text, 31), text},            // the word in any case
        {"/deflate-gzip", "deflate", deflated(text, 31), text}, // the magic bytes decide
        {"/zlib", "Deflate", deflated(text, 15), text},
        {"/gzip-zlib", "gzip", deflated(text, 15), text},     // no magic: read as a zlib stream
        {"/raw-deflate", "deflate", deflated(text, -15), {}}, // no zlib header: nothing
        {"/br", "br", "as sent", "as sent"},
        {"/plain", "", text, text},
        {"/empty", "gzip", {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.target);
        server.route(c.target, {200, {{"Content-Encoding", c.encoding}}, c.body, 0});
        QNetworkReply* reply = client.get(url(c.target), kAccept);
        EXPECT_EQ(QHttpUtils::isCompressed(reply),
                  QByteArray("gzip deflate").contains(QByteArray(c.encoding).toLower()) && *c.encoding);
        EXPECT_EQ(QHttpUtils::readAllEx(reply, true), c.expected);
        delete reply;
    }
}

TEST_F(HttpTest, ErrorsStatusCodesAndJson) {
    server.route("/missing", {404, {}, "{\"error\": \"gone\"}", 0});
    server.route("/json", {200, {{"Content-Encoding", "gzip"}}, deflated("{\"a\": [1, 2]}", 31), 0});
    server.route("/text", {200, {}, "not json", 0});
    auto fetch = [this](const char* target) {
        return QSharedPointer<QNetworkReply>(client.get(url(target), kAccept));
    };
    EXPECT_EQ(QHttpUtils::statusCode(fetch("/missing").data()), 404);
    EXPECT_TRUE(QHttpUtils::readAllEx(fetch("/missing").data(), true).isEmpty());
    EXPECT_EQ(QHttpUtils::readJson(fetch("/missing").data(), false)["error"].toString(), QString("gone"));
    EXPECT_EQ(QHttpUtils::readJson(fetch("/json").data(), true)["a"].toArray().size(), 2);
    EXPECT_TRUE(QHttpUtils::readJson(fetch("/text").data(), true).isNull());

    // Port 1 is not listened on: the connection is refused, there is no HTTP response and no status.
    const QSharedPointer<QNetworkReply> refused(client.get(QUrl("http://127.0.0.1:1/"), {}));
    EXPECT_EQ(refused->error(), QNetworkReply::ConnectionRefusedError);
    EXPECT_EQ(QHttpUtils::statusCode(refused.data()), 0);
}

TEST_F(HttpTest, RequestsCarryHeadersAndIndentedJson) {
    const QJsonObject body{{"name", "value"}, {"n", 3}};
    const QMap<QString, QString> headers{{"X-Token", "é"}, {"Content-Type", "application/json"}};
    delete client.post(url("/echo"), headers, body);
    delete client.put(url("/echo?v=1"), headers, body);
    delete client.put(QNetworkRequest(url("/raw")), "raw bytes");
    delete client.post(QNetworkRequest(url("/raw")), "form=1");
    const QList<ReceivedRequest>& seen = server.requests;
    ASSERT_EQ(seen.size(), 4);
    EXPECT_EQ(seen[0].method + seen[1].method + seen[2].method + seen[3].method,
              QByteArray("POSTPUTPUTPOST"));
    EXPECT_EQ(seen[1].target, QByteArray("/echo?v=1"));
    EXPECT_EQ(seen[0].headers.value("x-token"), QString("é").toUtf8());
    EXPECT_TRUE(seen[0].body.contains("\n    \"n\": 3")); // the indented form, for both verbs
    EXPECT_EQ(seen[1].body, seen[0].body);
    EXPECT_EQ(seen[2].body + seen[3].body, QByteArray("raw bytesform=1"));
}

TEST_F(HttpTest, TimeoutUntilClearCacheAndAbort) {
    server.route("/slow", {200, {}, "late", 700});
    client.setTimeout(100);
    QNetworkReply* reply = client.get(url("/slow"), {});
    EXPECT_EQ(reply->error(), QNetworkReply::OperationCanceledError);
    delete reply;
    client.clearCache(); // the fresh manager has no time-out
    reply = client.get(url("/slow"), {});
    EXPECT_EQ(QHttpUtils::readAllEx(reply, true), QByteArray("late"));
    QPointer<QNetworkReply> kept(reply);
    client.clearCache(); // replies not yet deleted go with the old manager
    EXPECT_TRUE(kept.isNull());

    QNetworkAccessManager manager;
    NetworkBlocker blocker;
    blocker.abort(); // no wait under way: nothing happens
    QSharedPointer<QNetworkReply> slow(manager.get(QNetworkRequest(url("/slow"))));
    QTimer::singleShot(50, &blocker, [&blocker] { blocker.abort(); });
    blocker.wait(slow);
    EXPECT_EQ(slow->error(), QNetworkReply::OperationCanceledError);
    blocker.wait(slow); // finished already: returns at once
}

TEST_F(HttpTest, CookiesStayOutOfTheMemberJarAndSurviveAFile) {
    server.route("/login", {200, {{"Set-Cookie", "sid=abc; Path=/; HttpOnly"}}, "hi", 0});
    delete client.get(url("/login"), {});
    EXPECT_TRUE(client.cookieJar()->cookiesForUrl(url("/")).isEmpty());
    delete client.get(url("/page"), {}); // the manager's own jar sends it back...
    EXPECT_EQ(server.requests.last().headers.value("cookie"), QByteArray("sid=abc"));
    client.clearCache(); // ...until it is dropped with the manager
    delete client.get(url("/page"), {});
    EXPECT_FALSE(server.requests.last().headers.contains("cookie"));

    QTemporaryDir dir;
    const QString path = dir.filePath("cookies.txt");
    QList<QNetworkCookie> cookies = QNetworkCookie::parseCookies(
        "sid=abc; Path=/; HttpOnly\npref=dark mode; Expires=Wed, 01 Jan 2200 00:00:00 GMT; Secure\n"
        "old=1; Expires=Thu, 01 Jan 1970 00:00:10 GMT");
    for (QNetworkCookie& c : cookies)
        c.setDomain("127.0.0.1");
    OpenJar jar;
    jar.setAllCookies(cookies);
    ASSERT_TRUE(jar.save(path));
    const QList<QByteArray> lines = readFile(path).split('\n');
    ASSERT_EQ(lines.size(), 4); // one line per cookie, expired ones included
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(QByteArray::fromBase64(lines[i]), cookies[i].toRawForm());
    writeFile(path, readFile(path) + "!!!\n" + QNetworkCookie("late", "2").toRawForm().toBase64() + "\n");

    OpenJar other;
    other.insertCookie(QNetworkCookie("keep", "1"));
    QNetworkCookie stale = cookies[0];
    stale.setValue("stale");
    other.insertCookie(stale);
    ASSERT_TRUE(other.load(path));
    QMap<QByteArray, QNetworkCookie> byName;
    for (const QNetworkCookie& c : other.allCookies())
        byName[c.name()] = c;
    // Merged, same names replaced, the expired one refused by the base jar, junk skipped.
    EXPECT_EQ(byName.keys(), (QList<QByteArray>{"keep", "late", "pref", "sid"}));
    EXPECT_EQ(byName["sid"].toRawForm(), cookies[0].toRawForm());  // a session cookie, http-only
    EXPECT_EQ(byName["pref"].toRawForm(), cookies[1].toRawForm()); // secure, with a space in its value

    OpenJar empty;
    EXPECT_TRUE(empty.save(path));
    EXPECT_EQ(QFileInfo(path).size(), 0);
    EXPECT_TRUE(empty.load(path) && empty.allCookies().isEmpty());
    EXPECT_FALSE(empty.load(dir.filePath("missing")));
    EXPECT_FALSE(empty.save(dir.path()));
}

TEST_F(HttpTest, ClientsOnSeveralThreadsAtOnce) {
    server.route("/ping", {200, {}, "pong", 2});
    const QString base = url("/ping?").toString();
    std::atomic<int> answered{0};
    onThreads(3, [&](int t) {
        QHttpClient mine;
        for (int i = 0; i < 5; ++i) {
            QScopedPointer<QNetworkReply> reply(mine.get(QUrl(base + QString("%1-%2").arg(t).arg(i)), {}));
            answered += reply->error() == QNetworkReply::NoError && reply->readAll() == "pong";
        }
    });
    EXPECT_EQ(answered, 15);
}
