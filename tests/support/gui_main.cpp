// main() of the window tests: one QApplication for the whole run, on the offscreen platform
// unless another is asked for, with the settings (XDG_CONFIG_HOME) and the Documents folder in
// temporary folders, never the user's own.

#include <gtest/gtest.h>

#include <QApplication>
#include <QTemporaryDir>

#include <cstdlib>

int main(int argc, char** argv)
{
    ::setenv("QT_QPA_PLATFORM", "offscreen", 0);
    // QSettings takes its folder once, at its first use: set before anything reads it.
    QTemporaryDir config;
    QTemporaryDir documents;
    ::setenv("XDG_CONFIG_HOME", config.path().toLocal8Bit().constData(), 1);
    ::setenv("VELTRIN_DOCUMENTS", documents.path().toLocal8Bit().constData(), 1);
    QApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
