// The main of every test program: a Qt application object (the network, SQL and process classes
// want one), then the tests.
#include <QCoreApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
