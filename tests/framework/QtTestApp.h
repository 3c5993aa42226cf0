#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <memory>

namespace test {

// The one application object of a Qt test executable, made on first use
// (the platform is "offscreen", set by the test environment) and destroyed
// when the test program's tests end, inside main: Qt must not be torn down
// by static destructors after its own globals are gone.
class QtEnvironment : public ::testing::Environment {
public:
    static std::unique_ptr<QApplication>& App() {
        static std::unique_ptr<QApplication> app;
        return app;
    }
    void TearDown() override { App().reset(); }
};

inline QApplication& QtApp() {
    std::unique_ptr<QApplication>& app = QtEnvironment::App();
    if (!app) {
        static int argc = 1;
        static char name[] = "curvana-tests";
        static char* argv[] = {name, nullptr};
        app = std::make_unique<QApplication>(argc, argv);
        // GoogleTest owns its environments.
        ::testing::AddGlobalTestEnvironment(new QtEnvironment);
    }
    return *app;
}

}  // namespace test
