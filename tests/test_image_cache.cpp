// The in-memory picture cache: identifiers, least-recently-used eviction, thread safety.
#include "ImageCachePool.h"
#include "TestSupport.h"

static QImage picture(int size, QRgb color = 0xff336699) {
    QImage image(size, size, QImage::Format_RGB32);
    image.fill(color);
    return image;
}

TEST(ImageCachePool, IdentifiersAndEntries) {
    ImageCachePool pool(4);
    EXPECT_EQ(pool.getImageId("./x//50%1.png", -1, 0), QString("./x//50%1.png_-1_0")); // taken as it is
    EXPECT_TRUE(pool.get("a", 1, 1).isNull());
    pool.put("a", 1, 1, picture(1, 0xffff0000));
    pool.put("a", 2, 2, picture(2, 0xff00ff00)); // same path, another size: another entry
    pool.put("a", 1, 1, picture(1, 0xff0000ff)); // replaced
    EXPECT_EQ(pool.get("a", 1, 1).pixel(0, 0), 0xff0000ffu);
    EXPECT_EQ(pool.get("a", 2, 2).pixel(0, 0), 0xff00ff00u);
    pool.put("null", 1, 1, QImage());
    EXPECT_TRUE(pool.contains("null", 1, 1) && pool.get("null", 1, 1).isNull());
}

TEST(ImageCachePool, LeastRecentlyUsedEviction) {
    ImageCachePool pool(2);
    pool.put("A", 1, 1, picture(1));
    pool.put("B", 1, 1, picture(1));
    const QImage b = pool.get("B", 1, 1);
    pool.get("A", 1, 1);
    pool.put("C", 1, 1, picture(1)); // B is the least recent
    EXPECT_FALSE(pool.contains("B", 1, 1));
    EXPECT_FALSE(b.isNull()); // a picture handed out outlives its entry
    pool.contains("A", 1, 1); // not a use: A stays the least recent
    pool.put("D", 1, 1, picture(1));
    EXPECT_FALSE(pool.contains("A", 1, 1));
    pool.put("C", 1, 1, picture(1)); // replacing makes C the most recent and evicts nothing
    EXPECT_TRUE(pool.contains("D", 1, 1));
    pool.put("E", 1, 1, picture(1));
    EXPECT_FALSE(pool.contains("D", 1, 1));
    EXPECT_TRUE(pool.contains("C", 1, 1) && pool.contains("E", 1, 1));

    for (int capacity : {0, -3}) { // every put evicts what it just inserted
        ImageCachePool none(capacity);
        none.put("A", 1, 1, picture(1));
        EXPECT_FALSE(none.contains("A", 1, 1));
    }
}

TEST(ImageCachePool, ConcurrentUse) {
    ImageCachePool pool(16);
    std::atomic<int> wrong{0};
    onThreads(8, [&](int t) { // through eviction all the time: 40 pictures for 16 places
        for (int i = 0; i < 2000; ++i) {
            const int n = (i * 7 + t * 13) % 40, size = 1 + n % 5;
            const QString path = QString("p%1").arg(n);
            if (i % 2 == 0) pool.put(path, size, size, picture(size, 0xff000000u | uint(n)));
            const QImage img = pool.get(path, size, size); // null when evicted meanwhile
            wrong += !img.isNull() && (img.width() != size || img.pixel(0, 0) != (0xff000000u | uint(n)));
            pool.contains(path, size, size);
        }
    });
    EXPECT_EQ(wrong, 0);
    int held = 0;
    for (int n = 0; n < 40; ++n)
        held += pool.contains(QString("p%1").arg(n), 1 + n % 5, 1 + n % 5);
    EXPECT_EQ(held, 16);
}
