// The in-memory picture cache: identifiers, least-recently-used eviction, thread safety.
#include "ImageCachePool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {
QImage picture(int w, int h, QRgb color = 0xff336699) {
    QImage image(w, h, QImage::Format_RGB32);
    image.fill(color);
    return image;
}
} // namespace

TEST(ImageCachePool, IdentifiersAndEntries) {
    ImageCachePool pool(4);
    EXPECT_EQ(pool.getImageId("a/b.jpg", 100, 80), QString("a/b.jpg_100_80"));
    EXPECT_EQ(pool.getImageId("./x//y.png", -1, 0), QString("./x//y.png_-1_0")); // path taken as it is
    EXPECT_EQ(pool.getImageId("50%1_%2.png", 3, 4), QString("50%1_%2.png_3_4"));

    EXPECT_TRUE(pool.get("a.jpg", 10, 10).isNull());
    EXPECT_FALSE(pool.contains("a.jpg", 10, 10));
    pool.put("a.jpg", 10, 10, picture(10, 10, 0xffff0000));
    pool.put("a.jpg", 20, 20, picture(20, 20, 0xff00ff00)); // same path, another size
    EXPECT_EQ(pool.get("a.jpg", 10, 10).pixel(0, 0), 0xffff0000);
    EXPECT_EQ(pool.get("a.jpg", 20, 20).pixel(0, 0), 0xff00ff00);

    // Replacing keeps the count; a null picture is an entry like any other.
    pool.put("a.jpg", 10, 10, picture(10, 10, 0xff0000ff));
    EXPECT_EQ(pool.get("a.jpg", 10, 10).pixel(0, 0), 0xff0000ff);
    pool.put("null", 1, 1, QImage());
    EXPECT_TRUE(pool.contains("null", 1, 1));
    EXPECT_TRUE(pool.get("null", 1, 1).isNull());
}

TEST(ImageCachePool, LeastRecentlyUsedEviction) {
    ImageCachePool pool(2);
    pool.put("A", 1, 1, picture(1, 1));
    pool.put("B", 1, 1, picture(1, 1));
    ASSERT_FALSE(pool.get("A", 1, 1).isNull());
    const QImage kept = pool.get("B", 1, 1);
    pool.get("A", 1, 1); // order now A, B
    pool.put("C", 1, 1, picture(1, 1));
    EXPECT_TRUE(pool.contains("A", 1, 1));
    EXPECT_FALSE(pool.contains("B", 1, 1));
    EXPECT_TRUE(pool.contains("C", 1, 1));
    EXPECT_FALSE(kept.isNull()); // a picture handed out outlives its entry

    // contains() is not a use: A is still the least recent after C.
    pool.contains("A", 1, 1);
    pool.put("D", 1, 1, picture(1, 1));
    EXPECT_FALSE(pool.contains("A", 1, 1));
    EXPECT_TRUE(pool.contains("C", 1, 1));

    // Replacing an entry makes it the most recent without evicting anything.
    pool.put("C", 1, 1, picture(1, 1));
    EXPECT_TRUE(pool.contains("C", 1, 1));
    EXPECT_TRUE(pool.contains("D", 1, 1));
    pool.put("E", 1, 1, picture(1, 1));
    EXPECT_FALSE(pool.contains("D", 1, 1));
    EXPECT_TRUE(pool.contains("C", 1, 1));

    // Without capacity every put evicts what it just inserted.
    for (int capacity : {0, -3}) {
        ImageCachePool none(capacity);
        none.put("A", 1, 1, picture(1, 1));
        none.put("B", 1, 1, picture(1, 1));
        EXPECT_FALSE(none.contains("A", 1, 1));
        EXPECT_FALSE(none.contains("B", 1, 1));
        EXPECT_TRUE(none.get("B", 1, 1).isNull());
    }
}

TEST(ImageCachePool, ConcurrentUse) {
    const int capacity = 16;
    ImageCachePool pool(capacity);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&pool, &wrong, t] {
            for (int i = 0; i < 3000; ++i) {
                const int n = (i * 7 + t * 13) % 40;
                const QString path = QString("pic%1.jpg").arg(n);
                const int size = 1 + n % 5;
                switch (i % 3) {
                case 0:
                    pool.put(path, size, size, picture(size, size, 0xff000000u | uint(n)));
                    break;
                case 1: {
                    const QImage img = pool.get(path, size, size);
                    if (!img.isNull() && (img.width() != size || img.pixel(0, 0) != (0xff000000u | uint(n))))
                        ++wrong;
                    break;
                }
                default:
                    pool.contains(path, size, size);
                }
            }
        });
    }
    for (std::thread& th : threads)
        th.join();
    EXPECT_EQ(wrong, 0);
    int held = 0;
    for (int n = 0; n < 40; ++n)
        held += pool.contains(QString("pic%1.jpg").arg(n), 1 + n % 5, 1 + n % 5);
    EXPECT_EQ(held, capacity); // far more distinct pictures were put than fit
}
