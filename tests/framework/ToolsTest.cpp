#include <gtest/gtest.h>

#include <QLineEdit>
#include <QMouseEvent>
#include <QTest>
#include <QVBoxLayout>
#include <string>
#include <vector>

#include "QtTestApp.h"
#include "framework/CImagePane.h"
#include "framework/CNonPollingTracker.h"
#include "framework/CTool.h"
#include "framework/ModifierFlags.h"
#include "framework/NavigationTools.h"

namespace Velmo {
namespace {

std::string Describe(const char* what, QPointF image, uint32_t flags = 0) {
    return std::string(what) + " " + std::to_string(static_cast<int>(image.x())) + "," +
           std::to_string(static_cast<int>(image.y())) +
           (flags ? " f" + std::to_string(flags) : "");
}

// Logs every call it gets, with image coordinates.
class LoggingTracker : public CNonPollingTracker {
public:
    explicit LoggingTracker(std::vector<std::string>& log) : log_(log) {}

protected:
    void Start(const CMouseEvent& e) override {
        log_.push_back(Describe("start", Pane()->PaneToImage(e.position), e.modifiers));
    }
    void Track(const CMouseEvent& e) override {
        log_.push_back(Describe("track", Pane()->PaneToImage(e.position)));
    }
    void Finish(const CMouseEvent& e) override {
        log_.push_back(Describe("finish", Pane()->PaneToImage(e.position)));
    }
    void Cancel() override { log_.push_back("cancel"); }

private:
    std::vector<std::string>& log_;
};

class DrawTool : public CTool {
public:
    explicit DrawTool(std::vector<std::string>& log)
        : CTool("DrawTool", "Test/Tool/Draw", "$$$/Test/Tool/Draw=Draw Tool (D)"), log_(log) {}
    void MouseDown(CImagePane& pane, const CMouseEvent& event) override {
        pane.StartTracker(*this, event, [this] { return std::make_shared<LoggingTracker>(log_); });
    }
    void Cancel() override { log_.push_back("tool cancel"); }

private:
    std::vector<std::string>& log_;
};

// The Hand tool, remembering the flags it was handed.
class SpyHand : public CHandTool {
public:
    using CHandTool::CHandTool;
    void MouseDown(CImagePane& pane, const CMouseEvent& event) override {
        received = event.modifiers;
        CHandTool::MouseDown(pane, event);
    }
    uint32_t received = ~0u;
};

class ToolsTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto* layout = new QVBoxLayout(&window);
        pane = new CImagePane;
        field = new QLineEdit;
        layout->addWidget(pane);
        layout->addWidget(field);
        pane->setFixedSize(400, 300);
        draw = static_cast<DrawTool*>(tools.Add(std::make_unique<DrawTool>(log)));
        hand = static_cast<SpyHand*>(tools.Add(std::make_unique<SpyHand>(
            "HandTool", "Test/Tool/Hand", "$$$/Test/Tool/Hand=Hand Tool (H)")));
        tools.Add(std::make_unique<CZoomTool>("ZoomTool", "Test/Tool/Zoom",
                                              "$$$/Test/Tool/Zoom=Zoom Tool (Z)", "",
                                              "Test/Tool/Hand"));
        pane->SetToolSet(&tools);
        pane->SetImageSize(QSizeF(1000, 800));
        window.show();
    }

    void Drag(QPoint from, QPoint to, Qt::KeyboardModifiers mods = {}) {
        QTest::mousePress(pane, Qt::LeftButton, mods, from);
        QTest::mouseMove(pane, (from + to) / 2);
        QTest::mouseRelease(pane, Qt::LeftButton, mods, to);
    }

    QApplication& app = test::QtApp();  // before any widget
    QWidget window;
    CImagePane* pane = nullptr;
    QLineEdit* field = nullptr;
    CToolSet tools{"Test/Tool/Set"};
    std::vector<std::string> log;
    DrawTool* draw = nullptr;
    SpyHand* hand = nullptr;
};

TEST_F(ToolsTest, ShortcutsSwitchToolsAndZoomSpringsToHandWhileSpaceIsHeld) {
    EXPECT_EQ(draw->Shortcut(), QChar('D'));
    EXPECT_EQ(tools.Find("Test/Tool/Zoom")->Shortcut(), QChar('Z'));
    // A second tool under a taken name or view id is refused.
    EXPECT_EQ(tools.Add(std::make_unique<CHandTool>("Other", "Test/Tool/Hand")), nullptr);
    EXPECT_EQ(tools.Add(std::make_unique<CHandTool>("HandTool", "Test/Tool/Other")), nullptr);

    std::vector<std::string> switched;
    tools.AddListener([&](CTool* t) { switched.push_back(t->Name()); });
    QTest::keyClick(pane, Qt::Key_Z, Qt::ControlModifier);  // not a shortcut with Control
    EXPECT_EQ(tools.Current(), draw);
    QTest::keyClick(pane, Qt::Key_Z);
    ASSERT_EQ(tools.Current()->Name(), "ZoomTool");
    EXPECT_EQ(switched, std::vector<std::string>{"ZoomTool"});

    // A click zooms in around the click: the image point under it stays.
    const QPoint at(100, 80);
    const QPointF before = pane->PaneToImage(at);
    QTest::mouseClick(pane, Qt::LeftButton, {}, at);
    EXPECT_DOUBLE_EQ(pane->Zoom(), 2.0);
    EXPECT_EQ(pane->PaneToImage(at), before);

    // Space held: the Hand tool acts, with the hand and Alt flags cleared,
    // and scrolls by the drag; the zoom stays.
    QTest::keyPress(pane, Qt::Key_Space);
    const QPointF origin = pane->Origin();
    Drag({200, 150}, {230, 170}, Qt::AltModifier | Qt::ShiftModifier);
    EXPECT_EQ(hand->received, kModShift);
    EXPECT_DOUBLE_EQ(pane->Zoom(), 2.0);
    EXPECT_EQ(pane->Origin(), origin + QPointF(30, 20));
    EXPECT_EQ(tools.Current()->Name(), "ZoomTool");  // spring-loaded, not selected

    // Space released: the Zoom tool is back; Alt-click zooms out.
    QTest::keyRelease(pane, Qt::Key_Space);
    QTest::mouseClick(pane, Qt::LeftButton, Qt::AltModifier, at);
    EXPECT_DOUBLE_EQ(pane->Zoom(), 1.0);
    QTest::keyClick(pane, Qt::Key_D);
    EXPECT_EQ(tools.Current(), draw);
}

TEST_F(ToolsTest, ATrackerIsFedADragInImageCoordinatesAndEndsByEscapeOrALostMouse) {
    pane->SetZoom(2.0, QPointF(0, 0));
    pane->SetOrigin(QPointF(10, 20));  // pane = (10, 20) + 2 * image

    QTest::mousePress(pane, Qt::LeftButton, Qt::ShiftModifier, QPoint(30, 40));
    ASSERT_NE(pane->Tracker(), nullptr);
    EXPECT_EQ(pane->Tracker()->PressModifiers(), kModShift);
    // No second drag while one runs.
    bool made = false;
    EXPECT_FALSE(pane->StartTracker(*draw, {}, [&] {
        made = true;
        return std::make_shared<LoggingTracker>(log);
    }));
    EXPECT_FALSE(made);
    QTest::mouseMove(pane, QPoint(50, 60));
    QTest::mouseRelease(pane, Qt::LeftButton, {}, QPoint(70, 80));
    EXPECT_EQ(log, (std::vector<std::string>{"start 10,10 f8", "track 20,20", "finish 30,30"}));
    EXPECT_EQ(pane->Tracker(), nullptr);

    // Each way a drag is abandoned: the tracker's Cancel, then the tool's,
    // and nothing of the drag reaches the tracker afterwards.
    const std::vector<std::function<void()>> abandon = {
        [&] { QTest::keyClick(pane, Qt::Key_Escape); },
        [&] { QTest::keyClick(field, Qt::Key_Escape); },  // focus elsewhere
        [&] {
            QEvent deactivate(QEvent::WindowDeactivate);
            QApplication::sendEvent(&window, &deactivate);
        },
        [&] {
            // The button is up, but the release went elsewhere.
            QMouseEvent move(QEvent::MouseMove, QPointF(60, 60), pane->mapToGlobal(QPointF(60, 60)),
                             Qt::NoButton, Qt::NoButton, Qt::NoModifier);
            QApplication::sendEvent(pane, &move);
        },
        [&] { pane->hide(); },
    };
    for (size_t k = 0; k < abandon.size(); ++k) {
        SCOPED_TRACE(k);
        pane->show();
        log.clear();
        QTest::mousePress(pane, Qt::LeftButton, {}, QPoint(30, 40));
        QTest::mouseMove(pane, QPoint(50, 60));
        abandon[k]();
        EXPECT_EQ(pane->Tracker(), nullptr);
        QTest::mouseMove(pane, QPoint(90, 90));
        QTest::mouseRelease(pane, Qt::LeftButton, {}, QPoint(90, 90));
        EXPECT_EQ(
            log, (std::vector<std::string>{"start 10,10", "track 20,20", "cancel", "tool cancel"}));
    }
}

TEST(ModifierFlags, MapQtModifiersAndTheHandKeyToTheirBits) {
    struct Case {
        Qt::KeyboardModifiers qt;
        bool hand;
        uint32_t flags;
    };
    const Case cases[] = {
        {Qt::NoModifier, false, 0},
        {Qt::ControlModifier, false, 1u},
        {Qt::AltModifier, false, 2u},
        {Qt::NoModifier, true, 4u},
        {Qt::ShiftModifier, false, 8u},
        {Qt::AltModifier | Qt::ShiftModifier, true, 14u},
        {Qt::MetaModifier | Qt::KeypadModifier, false, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ModifiersFromQt(c.qt, c.hand), c.flags);
    EXPECT_EQ(KeyCodeFromQt(Qt::Key_Escape), 27);
    EXPECT_EQ(KeyCodeFromQt(Qt::Key_Return), 13);
    EXPECT_EQ(KeyCodeFromQt(Qt::Key_C), 'C');
}

}  // namespace
}  // namespace Velmo
