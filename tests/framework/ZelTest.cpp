#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QSlider>
#include <QTest>
#include <QToolButton>
#include <string>

#include "QtTestApp.h"
#include "framework/CImagePane.h"
#include "framework/CTool.h"
#include "framework/Views.h"
#include "framework/Widgets.h"
#include "framework/ZelDocument.h"
#include "framework/ZelLoader.h"

namespace Velmo {
namespace {

const QString kSample = QStringLiteral(":/test/layouts/Sample.zel");

struct LoaderFixture {
    LoaderFixture() {
        test::QtApp();
        tools.Add(std::make_unique<CTool>("A", "Test/Tool/A", "$$$/Test/Tool/A=Tool A (A)",
                                          "$$$/Test/Help/A=Does A."));
        tools.Add(std::make_unique<CTool>("B", "Test/Tool/B", "$$$/Test/Tool/B=Tool B (B)"));
        loader.AddToolSet(tools);
    }
    CToolSet tools{"Test/Tool/Set"};
    CLayoutLoader loader;
};

template <class T>
T* View(QWidget& root, const char* id) {
    return dynamic_cast<T*>(FindView(root, std::string_view(id)));
}

TEST(ZelLoader, ALayoutResourceBecomesWidgetsNamedByTheirViewIds) {
    LoaderFixture f;
    QWidget host;
    CZelError error;
    ASSERT_TRUE(f.loader.LoadResource(kSample, host, error)) << error.ToString();

    // The window element speaks for the host.
    EXPECT_EQ(host.objectName(), "Test/Dialog");
    EXPECT_EQ(host.windowTitle(), "Sample");
    EXPECT_EQ(host.property("velmoOffset").toPoint(), QPoint(-50, -33));

    auto* ok = View<QPushButton>(host, "Test/Dialog/OK");
    ASSERT_NE(ok, nullptr);
    EXPECT_EQ(ok, FindView(host, ViewIdOf("Test/Dialog/OK")));
    EXPECT_EQ(ok->text(), "OK");
    EXPECT_TRUE(ok->isDefault());
    EXPECT_EQ(ok->minimumWidth(), 160);
    EXPECT_EQ(ok->maximumWidth(), 160);
    EXPECT_GT(ok->font().pointSizeF(), QApplication::font().pointSizeF());
    EXPECT_EQ(HelpKey(*ok), "$$$/Test/Help/OK=Commit.");

    auto* options = View<QGroupBox>(host, "Test/Dialog/Options");
    ASSERT_NE(options, nullptr);
    EXPECT_EQ(options->title(), "Opt&ions");
    EXPECT_TRUE(options->font().bold());

    // Slider ranges and steps, in slider stops and in the field.
    auto* scale = View<CSlider>(host, "Test/Dialog/Scale");
    ASSERT_NE(scale, nullptr);
    EXPECT_EQ(View<QLabel>(host, "Test/Dialog/ScaleLabel")->buddy(), scale);
    EXPECT_EQ(scale->Value(), 120.0);
    EXPECT_EQ(scale->Slider()->maximum(), 200);
    EXPECT_EQ(scale->Slider()->singleStep(), 2);  // 1 unit = 2 stops of 0.5
    EXPECT_EQ(scale->Slider()->pageStep(), 20);
    EXPECT_EQ(scale->Field()->text(), "120");
    auto* focal = View<CSlider>(host, "Test/Dialog/Focal");
    ASSERT_NE(focal, nullptr);
    EXPECT_EQ(focal->Field()->text(), "2.50");
    std::vector<double> heard;
    focal->SetListener([&](double v) { heard.push_back(v); });
    QTest::keyClick(focal->Field(), Qt::Key_Up);
    QTest::keyClick(focal->Field(), Qt::Key_Up, Qt::ShiftModifier);
    focal->Slider()->setValue(200);
    EXPECT_EQ(heard, (std::vector<double>{2.6, 3.6, 10.0}));
    EXPECT_EQ(focal->Field()->text(), "10.00");

    auto* model = View<QComboBox>(host, "Test/Dialog/Model");
    ASSERT_NE(model, nullptr);
    EXPECT_FALSE(model->isEditable());
    EXPECT_EQ(model->itemText(1), "Beta");
    EXPECT_EQ(model->toolTip(), "Pick one");
    auto* flyout = View<QToolButton>(host, "Test/Dialog/Flyout");
    ASSERT_NE(flyout, nullptr);
    ASSERT_NE(flyout->menu(), nullptr);
    EXPECT_EQ(FindCommand(*flyout->menu(), "$$$/Test/Menu/Save")->text(), "Save...");
    auto* check = View<QCheckBox>(host, "Test/Dialog/Check");
    EXPECT_TRUE(check->isChecked() && check->isHidden());
    EXPECT_EQ(View<QLabel>(host, "Test/Dialog/Icon")->pixmap().size(), QSize(14, 14));

    // The scroller holds the pane and the zoom combo in its gap.
    auto* pane = View<CImagePane>(host, "Test/Dialog/Pane");
    ASSERT_NE(pane, nullptr);
    EXPECT_NE(dynamic_cast<CScroller*>(pane->parentWidget()), nullptr);
    EXPECT_EQ(pane->MinimumZoom(), 0.001);
    EXPECT_EQ(pane->MaximumZoom(), 16.0);
    EXPECT_EQ(pane->Cushion(), 3);
    EXPECT_TRUE(View<QComboBox>(host, "Test/Dialog/Zoom")->isEditable());
    EXPECT_EQ(View<QLabel>(host, "Test/Dialog/Help")->text(), "Point at something");

    // Tool buttons follow the set and switch it.
    auto* a = View<QToolButton>(host, "Test/Tool/A");
    auto* b = View<QToolButton>(host, "Test/Tool/B");
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->toolTip(), "Tool A (A)");
    EXPECT_TRUE(a->isChecked());
    b->click();
    EXPECT_EQ(f.tools.Current()->Name(), "B");
    EXPECT_TRUE(b->isChecked());
    EXPECT_FALSE(a->isChecked());
}

struct Malformed {
    const char* text;
    int line;
    int column;
    const char* says;
};

std::string Nested(int depth) {
    std::string s;
    for (int k = 0; k < depth; ++k)
        s += "row { ";
    for (int k = 0; k < depth; ++k)
        s += "} ";
    return s;
}

class ZelMalformed : public ::testing::TestWithParam<Malformed> {};

TEST_P(ZelMalformed, IsRefusedWithLineAndColumnAndLeavesTheHostAlone) {
    LoaderFixture f;
    const Malformed& c = GetParam();
    const std::string text = std::string(c.text) == "deep" ? Nested(65) : c.text;
    QWidget host;
    CZelError error;
    EXPECT_FALSE(f.loader.Load(text, host, error));
    EXPECT_EQ(error.position.line, c.line) << error.ToString();
    EXPECT_EQ(error.position.column, c.column) << error.ToString();
    EXPECT_NE(error.message.find(c.says), std::string::npos) << error.ToString();
    EXPECT_EQ(host.layout(), nullptr);
    EXPECT_TRUE(host.children().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, ZelMalformed,
    ::testing::Values(
        // Syntax.
        Malformed{"row {\n  width = 12px\n}", 2, 13, "unexpected 'p' after a number"},
        Malformed{"row {\n  text \"a\" { text = \"\\q\" }\n}", 2, 22, "unknown escape"},
        Malformed{"row {\n  text \"a\" { text = \"x\n\" }\n}", 2, 23, "line break inside a string"},
        Malformed{"row {\n  spacing = 1e999\n}", 2, 13, "out of range"},
        Malformed{"row {\n  text \"a\" {\n", 3, 1,
                  "'}' missing for \"text\" opened at line 2, column 12"},
        Malformed{"row {\n  width =\n}", 3, 1, "expected a value, found '}'"},
        Malformed{"row {}\nrow {}", 2, 1, "expected the end of the text"},
        Malformed{"row {\n  $ = 1\n}", 2, 3, "unexpected '$'"},
        Malformed{"row {\n  text \"\xC3\xA9\xC3\xA9\" $\n}", 2, 13,
                  "unexpected '$'"},  // columns count characters
        Malformed{"row {\n  items = [[1]]\n}", 2, 12, "lists do not nest"},
        Malformed{"row {\n  text \"\" \n}", 2, 8, "view id must not be empty"},
        Malformed{"deep", 1, 385, "nested deeper than 64"},
        // Kinds, properties and values.
        Malformed{"row {\n  buton \"x\"\n}", 2, 3, "unknown element kind \"buton\""},
        Malformed{"row {\n  text \"a\" { colour = red }\n}", 2, 14,
                  "\"colour\" is not a property of \"text\""},
        Malformed{"row {\n  slider \"s\" { positions = 1.5 }\n}", 2, 28,
                  "\"positions\" needs a whole number"},
        Malformed{"row {\n  slider \"s\" { range = [150, 50] }\n}", 2, 24,
                  "must not run backwards"},
        Malformed{"row {\n  font = bold\n}", 2, 10, "one of small, medium, mediumBold, large"},
        Malformed{"row {\n  width = 10\n  width = 20\n}", 3, 3, "given twice"},
        Malformed{"row {\n  text \"a\"\n  check \"a\"\n}", 3, 3,
                  "used twice (first at line 2, column 3)"},
        Malformed{"row {\n  window\n}", 2, 3, "a window can only be the root"},
        Malformed{"row {\n  button { text \"x\" }\n}", 2, 12, "holds no elements"},
        Malformed{"text \"x\"", 1, 1, "the root element must hold elements"},
        Malformed{"row {\n  scroller { combo }\n}", 2, 3, "exactly one imagepane"},
        // What only instantiation can tell.
        Malformed{
            "row {\n  toolgrid \"Test/Tool/Set\" { tools = [\"Test/Tool/A\", \"Test/Tool/C\"] }\n}",
            2, 54, "has no tool \"Test/Tool/C\""},
        Malformed{"row {\n  toolgrid \"Test/Tool/Other\" { tools = [] }\n}", 2, 3,
                  "no tool set \"Test/Tool/Other\""},
        Malformed{"row {\n  text \"t\" { buddy = \"nowhere\" }\n}", 2, 22, "no view \"nowhere\""},
        Malformed{"row {\n  icon { image = Smiley }\n}", 2, 18, "no picture named \"Smiley\""}));

TEST(ZelDocument, WrittenLayoutsParseBackToTheSameTree) {
    QFile file(kSample);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray sample = file.readAll();
    const std::string tricky =
        "column \"a\\\"b\" {\n  text = \"tab\\there\\nback\\\\slash \xE2\x80\x94\"\n"
        "  range = [-0.5, 1e-07, 123456789.125, 2E+3,]\n  flags = [true, false, medium]\n  "
        "row\n}\n";
    for (const std::string& text :
         {std::string(sample.constData(), static_cast<size_t>(sample.size())), tricky}) {
        CZelError error;
        const std::optional<CZelNode> tree = ParseZel(text, error);
        ASSERT_TRUE(tree) << error.ToString();
        const std::string written = WriteZel(*tree);
        const std::optional<CZelNode> again = ParseZel(written, error);
        ASSERT_TRUE(again) << error.ToString() << "\n" << written;
        EXPECT_TRUE(SameZel(*tree, *again)) << written;
    }
    CZelError error;
    const std::optional<CZelNode> tree = ParseZel(tricky, error);
    EXPECT_EQ(tree->viewId, "a\"b");
    EXPECT_EQ(tree->properties[0].value.text, "tab\there\nback\\slash \xE2\x80\x94");
    EXPECT_EQ(tree->properties[1].value.items[3].number, 2000.0);
    EXPECT_EQ(tree->properties[2].value.items[2].type, CZelValue::Type::Name);
}

}  // namespace
}  // namespace Velmo
