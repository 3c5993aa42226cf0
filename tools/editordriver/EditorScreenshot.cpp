// Renders the editor dialog on a photograph with its constraints loaded and
// writes the picture as PNG (the README's screenshot):
//   curvana-editor-screenshot --module libcurvana.so --photo IN --constraints FILE.cvc
//                             --out editor.png [--size WxH] [--palette]
// --palette stores the picture with a palette of at most 256 colours
// (ordered dithering), which keeps it small. Run it with
// QT_QPA_PLATFORM=offscreen to need no display.
#include <QApplication>
#include <QCursor>
#include <QImage>
#include <QtTest/QTest>
#include <cstdio>
#include <filesystem>
#include <string>

#include "editordriver/EditorDriver.h"

namespace fs = std::filesystem;
using namespace Curvana::EditorDriver;

namespace {

int Usage(const char* why) {
    std::fprintf(stderr,
                 "curvana-editor-screenshot: %s\nusage: curvana-editor-screenshot --module "
                 "libcurvana.so --photo IN --constraints FILE.cvc --out OUT.png [--size WxH] "
                 "[--palette]\n",
                 why);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    fs::path module, photo, constraints, out;
    int width = 1200, height = 780;
    bool palette = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--palette") {
            palette = true;
            continue;
        }
        if (i + 1 >= argc)
            return Usage(("missing value for " + a).c_str());
        const std::string v = argv[++i];
        if (a == "--module")
            module = v;
        else if (a == "--photo")
            photo = v;
        else if (a == "--constraints")
            constraints = v;
        else if (a == "--out")
            out = v;
        else if (a == "--size") {
            if (std::sscanf(v.c_str(), "%dx%d", &width, &height) != 2 || width < 400 ||
                height < 300)
                return Usage("--size wants WxH, at least 400x300");
        } else {
            return Usage(("unknown option " + a).c_str());
        }
    }
    if (module.empty() || photo.empty() || constraints.empty() || out.empty())
        return Usage("--module, --photo, --constraints and --out are needed");

    const fs::path scratch = fs::temp_directory_path() / "curvana-editor-screenshot";
    fs::create_directories(scratch);
    bool written = false;
    RunCurvana({"edit", photo.string(), "-o", (scratch / "unused.jpg").string(), "--module",
                module.string(), "-q"},
               [&](QWidget& dialog) {
                   dialog.resize(width, height);
                   ModalAnswers answers;
                   answers.ChooseFile(constraints);
                   QAction* load =
                       Command(dialog, "Project/Menu/File", "$$$/Curvana/FileMenu/LoadConstraints");
                   if (!load) {
                       std::fprintf(stderr, "curvana-editor-screenshot: no Load command\n");
                       return;
                   }
                   load->trigger();
                   if (!WaitForPreview(dialog)) {
                       std::fprintf(stderr, "curvana-editor-screenshot: no preview came\n");
                       return;
                   }
                   // The pointer on the back wall's upper left corner: the loupe shows it.
                   if (QWidget* pane = View(dialog, "Project/Dialog/PreviewPane")) {
                       const QPoint at(pane->width() * 28 / 100, pane->height() * 35 / 100);
                       QTest::mouseMove(pane, at);
                   }
                   QTest::qWait(200);
                   QImage shot = dialog.grab().toImage();
                   if (palette)
                       shot = shot.convertToFormat(QImage::Format_Indexed8,
                                                   Qt::AutoColor | Qt::OrderedDither);
                   written = shot.save(QString::fromStdString(out.string()), "PNG", 9);
               });
    std::error_code ec;
    fs::remove_all(scratch, ec);
    if (!written) {
        std::fprintf(stderr, "curvana-editor-screenshot: %s was not written\n", out.c_str());
        return 1;
    }
    std::printf("curvana-editor-screenshot: wrote %s\n", out.c_str());
    return 0;
}
