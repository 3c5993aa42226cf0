// A stand-in for the dialog, built into a test editor object: records what
// the module asked of it and answers as the test tells it, through the
// environment of the process it runs in:
//   CURVANA_TEST_EDITOR_LOG     a file that receives one line per event
//   CURVANA_TEST_EDITOR_ANSWER  "ok" (render the result, like the dialog's OK)
//                               or anything else (Cancel)
#include <QApplication>

#include <cstdlib>
#include <fstream>
#include <string>

#include "core/LocalizedString.h"
#include "editorhost/DialogFactory.h"
#include "session/PFilter.h"

namespace Project {

namespace {

void Log(const std::string& line) {
    if (const char* path = std::getenv("CURVANA_TEST_EDITOR_LOG"))
        std::ofstream(path, std::ios::app) << line << "\n";
}

class RecordingEditor final : public PEditor {
public:
    RecordingEditor() { Log("created"); }

    Result Run(PFilter& filter, const char* layoutResource, DialogPlacement&) override {
        // What the editor sees of the session: the layout it was asked for,
        // whether it runs under a widgets application, and a text localised
        // through the translation table that the module installed (one copy
        // of the session's globals).
        Log(std::string("run ") + layoutResource +
            " widgets=" + (qobject_cast<QApplication*>(QCoreApplication::instance()) ? "1" : "0") +
            " name=" + Localize("$$$/Curvana/Process/Name=Curvana") +
            " projection=" + std::to_string(static_cast<int>(filter.settings().projectionModel)));
        const char* answer = std::getenv("CURVANA_TEST_EDITOR_ANSWER");
        if (answer && std::string(answer) == "ok") {
            const bool rendered = filter.renderFinal();
            Log(rendered ? "ok" : "ok-failed");
            return rendered ? Result::Ok : Result::Cancel;
        }
        Log("cancel");
        return Result::Cancel;
    }
    void RefreshProjection() override {}
};

}  // namespace

std::unique_ptr<PEditor> CreateDialogEditor() {
    return std::make_unique<RecordingEditor>();
}

}  // namespace Project
