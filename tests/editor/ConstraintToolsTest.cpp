// The constraint tools as a user works them: mouse and key events on the
// preview pane of `curvana edit` on the sample photograph. With the Preview
// check off the pane shows the photograph itself, so a source pixel p sits
// at pane point origin + zoom * p and the tests know where every constraint
// is; one scenario works on the corrected preview.
#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QMouseEvent>
#include <QPushButton>
#include <QToolButton>
#include <array>
#include <cmath>
#include <memory>

#include "DialogFixture.h"
#include "constraints/ConstraintFile.h"
#include "constraints/ConstraintSet.h"
#include "framework/CCursors.h"
#include "samplegen/SampleScene.h"

namespace Curvana::Host::Test {
namespace {

using namespace EditorDriver;
using Project::LineConstraint;
using Project::Orientation;
using Project::PlaneConstraint;
using Project::PointF;

// ------------------------------------------------------------------ input

void Mouse(QWidget& pane, QEvent::Type type, QPointF at, Qt::KeyboardModifiers modifiers = {}) {
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    const Qt::MouseButtons buttons =
        type == QEvent::MouseButtonRelease ? Qt::MouseButtons() : Qt::LeftButton;
    QMouseEvent event(type, at, pane.mapToGlobal(at), button, buttons, modifiers);
    QApplication::sendEvent(&pane, &event);
}
void Press(QWidget& pane, QPointF at, Qt::KeyboardModifiers m = {}) {
    Mouse(pane, QEvent::MouseButtonPress, at, m);
}
void Move(QWidget& pane, QPointF at, Qt::KeyboardModifiers m = {}) {
    Mouse(pane, QEvent::MouseMove, at, m);
}
void Release(QWidget& pane, QPointF at, Qt::KeyboardModifiers m = {}) {
    Mouse(pane, QEvent::MouseButtonRelease, at, m);
}
void Click(QWidget& pane, QPointF at, Qt::KeyboardModifiers m = {}) {
    Press(pane, at, m);
    Release(pane, at, m);
}
// A drag through its middle to `to`.
void Drag(QWidget& pane, QPointF from, QPointF to, Qt::KeyboardModifiers m = {}) {
    Press(pane, from, m);
    Move(pane, (from + to) / 2, m);
    Move(pane, to, m);
    Release(pane, to, m);
}

// ------------------------------------------------------------------ the dialog

class Tools : public DialogFixture {
protected:
    // The photograph itself in the pane (source pixels = picture pixels).
    static void PreviewOff(QWidget& dialog) {
        auto* check = ViewAs<QCheckBox>(dialog, "Project/Dialog/PreviewResultCheck");
        if (check->isChecked())
            check->click();
        ASSERT_TRUE(WaitForPreview(dialog));
    }

    QPointF ToPane(PointF source) const { return pane->ImageToPane(QPointF(source.x, source.y)); }
    QPointF ToPane(double x, double y) const { return pane->ImageToPane(QPointF(x, y)); }

    static bool ToolCurrent(QWidget& dialog, const char* id) {
        return ViewAs<QToolButton>(dialog, id)->isChecked();
    }

    // The photograph's own context (its size, camera and settings), read
    // from the sample's constraint file.
    static std::unique_ptr<Project::SimpleConstraintFileContext> SampleContext() {
        auto context = std::make_unique<Project::SimpleConstraintFileContext>();
        context->width = 3000;
        context->height = 2000;
        context->make = SampleGen::kSampleMake;
        context->model = SampleGen::kSampleModel;
        context->lens = SampleGen::sampleLensName(SampleGen::Lens::Equisolid);
        Project::ConstraintSet scratch;
        EXPECT_TRUE(Project::readConstraintData(scratch, *context, readBytes(kConstraints)))
            << scratch.Message();
        return context;
    }

    // The dialog's constraints, saved through the File menu and read back.
    std::unique_ptr<Project::ConstraintSet> Saved(QWidget& dialog) {
        const fs::path file = dir / ("saved-" + std::to_string(++saves) + ".cvc");
        SaveConstraints(dialog, file);
        auto set = std::make_unique<Project::ConstraintSet>();
        EXPECT_TRUE(Project::readConstraintData(*set, *SampleContext(), readBytes(file)))
            << set->Message();
        return set;
    }

    // Line k of the dialog's constraints, as saved.
    std::unique_ptr<LineConstraint> SavedLine(QWidget& dialog, size_t k = 0) {
        return Project::AsLine(*Saved(dialog)->At(k))->CloneLine();
    }

    // Writes `lines` as a constraint file for the photograph and loads it.
    void LoadLines(QWidget& dialog, std::vector<std::unique_ptr<LineConstraint>> lines) {
        Project::ConstraintSet set;
        for (auto& line : lines)
            set.Add(std::move(line));
        ASSERT_TRUE(Project::saveConstraintFile(set, *SampleContext(), dir.path(), "lines.cvc"));
        EXPECT_EQ(LoadConstraints(dialog, dir / "lines.cvc"), "");
    }

    // The last step deleted the one constraint drawn: it undoes and redoes.
    void ExpectTheDeletionUndoes(QWidget& dialog) {
        EXPECT_EQ(Drawn(), 0);
        EXPECT_EQ(UndoLabel(dialog), "Undo Delete Constraint");
        Undo(dialog);
        EXPECT_EQ(Drawn(), 1);
        Redo(dialog);
        EXPECT_EQ(Drawn(), 0);
    }

    int saves = 0;
};

// A drag adds a line only beyond 6 pane pixels; with Shift the line is
// Horizontal below 45 degrees and Vertical from 45 on. Escape abandons a
// drag. Each addition is one undoable step.
TEST_F(Tools, DrawingALineNeedsADragBeyondSixPixelsAndShiftSnapsAt45Degrees) {
    struct Case {
        QPointF travel;
        Qt::KeyboardModifiers modifiers;
        bool adds;
        Orientation orientation;
    };
    const Case cases[] = {
        {{6, 0}, {}, false, {}},
        {{0, -6}, {}, false, {}},
        {{7, 0}, {}, true, Orientation::Unfixed},
        {{0, 7}, {}, true, Orientation::Unfixed},
        {{287, 286}, Qt::ShiftModifier, true, Orientation::Horizontal},  // 44.9 degrees
        {{200, -200}, Qt::ShiftModifier, true, Orientation::Vertical},   // 45 degrees
        {{-60, 240}, Qt::ShiftModifier, true, Orientation::Vertical},
        {{150, 30}, {}, true, Orientation::Unfixed},
    };
    Edit([&](QWidget& dialog) {
        PreviewOff(dialog);
        EXPECT_TRUE(ToolCurrent(dialog, "Project/Tool/ManageConstraint"));
        const QRectF image = pane->ImageRect();
        ASSERT_GT(image.width(), 700);
        int added = 0;
        std::vector<Orientation> expected;
        double row = image.top() + 20;
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << c.travel.x() << ", " << c.travel.y());
            const QPointF from(image.left() + 80 + (c.travel.x() < 0 ? 80 : 0),
                               c.travel.y() < 0 ? row + 210 : row);
            Drag(*pane, from, from + c.travel, c.modifiers);
            if (c.adds) {
                ++added;
                expected.push_back(c.orientation);
                EXPECT_EQ(UndoLabel(dialog), "Undo Add Constraint");
            }
            EXPECT_EQ(Drawn(), added);
            row += 30;
        }

        // Escape during a drag adds nothing.
        const QPointF from(image.left() + 500, image.top() + 40);
        Press(*pane, from);
        Move(*pane, from + QPointF(60, 0));
        QTest::keyClick(pane, Qt::Key_Escape);
        Release(*pane, from + QPointF(60, 0));
        EXPECT_EQ(Drawn(), added);
        EXPECT_TRUE(dialog.isVisible()) << "Escape went to the drag, not the dialog";

        const auto saved = Saved(dialog);
        ASSERT_EQ(saved->Size(), expected.size());
        for (size_t k = 0; k < expected.size(); ++k)
            EXPECT_EQ(Project::AsLine(*saved->At(k))->GetOrientation(), expected[k]) << k;

        // Every addition undoes and redoes.
        for (int k = added; k > 0; --k) {
            Undo(dialog);
            EXPECT_EQ(Drawn(), k - 1);
        }
        EXPECT_EQ(UndoLabel(dialog), "Cannot Undo");
        for (int k = 0; k < added; ++k)
            Redo(dialog);
        EXPECT_EQ(Drawn(), added);
    });
}

// Rotating a line fixed at an angle: with Shift the angle snaps to 15
// degrees (0 and -180 shown as 0 and 180); without it the angle wraps past
// 180 to -180. The angle window shows it; the release is one undoable step.
TEST_F(Tools, RotationSnapsToFifteenDegreesAndWrapsPast180) {
    struct Case {
        float start;
        double shifted;  // the angle with Shift held, no turn
    };
    const Case cases[] = {{7.4f, 0.0},      {7.5f, 15.0}, {22.4f, 15.0},  {22.5f, 30.0},
                          {-176.0f, 180.0}, {-3.0f, 0.0}, {170.0f, 165.0}};
    const size_t last = std::size(cases) - 1;
    const auto rowY = [](size_t k) { return 300.0f + 220.0f * static_cast<float>(k); };
    Edit([&](QWidget& dialog) {
        std::vector<std::unique_ptr<LineConstraint>> lines;
        for (size_t k = 0; k <= last; ++k)
            lines.push_back(std::make_unique<LineConstraint>(
                700.0f, rowY(k), 1300.0f, rowY(k), Orientation::Arbitrary, cases[k].start));
        LoadLines(dialog, std::move(lines));
        PreviewOff(dialog);
        auto* window = dialog.findChild<QLabel*>("Project/Dialog/AngleWindow");
        EXPECT_EQ(window, nullptr) << "made on the first rotation";
        const auto shown = [&dialog]() {
            auto* label = dialog.findChild<QLabel*>("Project/Dialog/AngleWindow");
            if (!label || label->isHidden())
                return QString();
            return label->text();
        };
        for (size_t k = 0; k <= last; ++k) {
            SCOPED_TRACE(cases[k].start);
            // The handle stands 24 pane pixels above the middle of the line.
            const QPointF handle = ToPane(1000, rowY(k)) - QPointF(0, 24);
            Press(*pane, handle);
            EXPECT_EQ(shown(), QString::number(cases[k].start, 'f', 1) + QChar(0x00B0));
            Move(*pane, handle + QPointF(4, 4), Qt::ShiftModifier);
            Move(*pane, handle, Qt::ShiftModifier);
            EXPECT_EQ(shown(), QString::number(cases[k].shifted, 'f', 1) + QChar(0x00B0));
            Release(*pane, handle, Qt::ShiftModifier);
            EXPECT_EQ(shown(), QString()) << "hidden after the release";
            EXPECT_EQ(UndoLabel(dialog), "Undo Constraint Orientation");
        }
        // The last line now stands at 165 degrees; turning it 30 degrees
        // counter-clockwise carries it past 180 to -165.
        const QPointF pivot = ToPane(1000, rowY(last));
        QPointF at = pivot - QPointF(0, 24);
        Press(*pane, at);
        for (int step = 1; step <= 6; ++step) {
            const double a = (90.0 + 5.0 * step) * M_PI / 180.0;
            at = pivot + 24.0 * QPointF(std::cos(a), -std::sin(a));
            Move(*pane, at);
        }
        EXPECT_NEAR(shown().chopped(1).toDouble(), -165.0, 0.06) << shown().toStdString();
        Release(*pane, at);

        const auto saved = Saved(dialog);
        ASSERT_EQ(saved->Size(), std::size(cases));
        for (size_t k = 0; k < last; ++k) {
            const float angle = Project::AsLine(*saved->At(k))->Angle();
            EXPECT_EQ(angle, static_cast<float>(cases[k].shifted)) << k;
            EXPECT_FALSE(std::signbit(angle)) << k << ": 0 and 180, never -0 or -180";
        }
        EXPECT_NEAR(Project::AsLine(*saved->At(last))->Angle(), -165.0, 0.06);
        // Undo goes back before the last turn, redo turns it again.
        Undo(dialog);
        EXPECT_EQ(SavedLine(dialog, last)->Angle(), 165.0f);
        Redo(dialog);
        EXPECT_NEAR(SavedLine(dialog, last)->Angle(), -165.0, 0.06);
    });
}

// The polygon tool: a click within 15 pixels of a point is ignored, 16 away
// appends; a two-point polygon is not closed by its first point; a click on
// the first point of three or more closes it. Alt-click on a polygon with
// the Constraint tool hands over to the polygon tool, which deletes it.
TEST_F(Tools, PolygonPointsCloseAndIgnoreRulesAndAltClickHandsOver) {
    Edit([&](QWidget& dialog) {
        PreviewOff(dialog);
        QTest::keyClick(pane, Qt::Key_Y);
        ASSERT_TRUE(ToolCurrent(dialog, "Project/Tool/PlaneTool"));
        const QPointF a(pane->width() / 2.0 - 100, pane->height() / 2.0 - 60);
        const QPointF clicks[] = {
            a,
            a + QPointF(10, 10),  // within 15 of a: ignored
            a + QPointF(16, 0),   // 16 away: appended
            a,                    // two points: not closed, and within 15: ignored
            a + QPointF(16, 60),  // appended
            a + QPointF(0, 60),   // appended
        };
        for (const QPointF& at : clicks)
            Click(*pane, at);
        EXPECT_EQ(Drawn(), 0);
        EXPECT_EQ(UndoLabel(dialog), "Cannot Undo");
        Click(*pane, a + QPointF(2, -2));  // within 3 of the first point: closes
        EXPECT_EQ(Drawn(), 1);
        EXPECT_EQ(UndoLabel(dialog), "Undo Add Constraint");
        const auto saved = Saved(dialog);
        ASSERT_EQ(saved->Size(), 1u);
        const PlaneConstraint* plane = Project::AsPlane(*saved->At(0));
        ASSERT_NE(plane, nullptr);
        ASSERT_EQ(plane->VertexCount(), 4);
        for (const auto& [k, at] : {std::pair{0, a},
                                    {1, a + QPointF(16, 0)},
                                    {2, a + QPointF(16, 60)},
                                    {3, a + QPointF(0, 60)}}) {
            const QPointF expected = pane->PaneToImage(at);
            EXPECT_NEAR(plane->Vertex(k).x, expected.x(), 0.01) << k;
            EXPECT_NEAR(plane->Vertex(k).y, expected.y(), 0.01) << k;
        }

        QTest::keyClick(pane, Qt::Key_C);
        ASSERT_TRUE(ToolCurrent(dialog, "Project/Tool/ManageConstraint"));
        Click(*pane, a + QPointF(8, 30), Qt::AltModifier);
        EXPECT_TRUE(ToolCurrent(dialog, "Project/Tool/PlaneTool"));
        ExpectTheDeletionUndoes(dialog);

        // With Shift, the edge that ends at a new point (and the closing
        // edge) is marked Horizontal or Vertical by its angle.
        const struct {
            QPointF at;
            Qt::KeyboardModifiers modifiers;
        } corners[] = {{a, {}},
                       {a + QPointF(100, 10), Qt::ShiftModifier},
                       {a + QPointF(110, 120), Qt::ShiftModifier},
                       {a + QPointF(0, 100), {}},
                       {a + QPointF(1, 1), Qt::ShiftModifier}};
        for (const auto& corner : corners)
            Click(*pane, corner.at, corner.modifiers);
        const auto marked = Saved(dialog);
        ASSERT_EQ(marked->Size(), 1u);
        const PlaneConstraint* edges = Project::AsPlane(*marked->At(0));
        ASSERT_NE(edges, nullptr);
        ASSERT_EQ(edges->VertexCount(), 4);
        // Edge k ends at corner k; edge 0 closes the polygon.
        const Orientation codes[] = {Orientation::Vertical, Orientation::Horizontal,
                                     Orientation::Vertical, Orientation::Unfixed};
        for (int32_t k = 0; k < 4; ++k)
            EXPECT_EQ(edges->GetEdgeCode(k), static_cast<int32_t>(codes[k])) << k;
    });
}

// An endpoint follows the pointer in steps of more than 6 pane pixels; the
// drag is one undoable step. Shift over a line springs to the orientation
// tool: a click marks an unfixed line Horizontal or Vertical by its angle and
// a marked one Unfixed, one undoable step each.
TEST_F(Tools, EndpointDragsShiftClicksAndAltClicksWithinThreeScreenPixels) {
    Edit([&](QWidget& dialog) {
        PreviewOff(dialog);
        const QPointF a(pane->width() / 2.0 - 150, pane->height() / 2.0 - 100);
        const QPointF b = a + QPointF(40, 160);  // steep: Vertical
        Drag(*pane, a, b);
        const QPointF before = pane->PaneToImage(b);
        // A press without a real drag leaves the end where it was.
        Press(*pane, b);
        Move(*pane, b + QPointF(5, 5));
        Release(*pane, b + QPointF(5, 5));
        EXPECT_EQ(UndoLabel(dialog), "Undo Add Constraint");
        Press(*pane, b);
        Move(*pane, b + QPointF(40, 30));
        Move(*pane, b + QPointF(44, 33));  // within 6 of the end's new place: stays
        Release(*pane, b + QPointF(44, 33));
        EXPECT_EQ(UndoLabel(dialog), "Undo Adjust Constraint");
        const QPointF moved = pane->PaneToImage(b + QPointF(40, 30));
        const auto line = [&] { return SavedLine(dialog); };
        const auto second = [&] { return QPointF(line()->Second().x, line()->Second().y); };
        EXPECT_LT(QLineF(second(), moved).length(), 0.01);
        Undo(dialog);
        EXPECT_LT(QLineF(second(), before).length(), 0.01);
        Redo(dialog);
        EXPECT_LT(QLineF(second(), moved).length(), 0.01);
        Undo(dialog);

        EXPECT_EQ(line()->GetOrientation(), Orientation::Unfixed);
        // The middle of the line (an end would not spring).
        const QPointF middle = (a + b) / 2;
        Click(*pane, middle, Qt::ShiftModifier);
        EXPECT_EQ(UndoLabel(dialog), "Undo Constraint Orientation");
        EXPECT_EQ(line()->GetOrientation(), Orientation::Vertical);
        Click(*pane, middle, Qt::ShiftModifier);
        EXPECT_EQ(line()->GetOrientation(), Orientation::Unfixed);
        Undo(dialog);
        EXPECT_EQ(line()->GetOrientation(), Orientation::Vertical);
        Redo(dialog);
        EXPECT_EQ(line()->GetOrientation(), Orientation::Unfixed);

        // Hit tests take 3 screen pixels: 1.5 picture pixels at zoom 2, 6 at
        // zoom 0.5. Alt-click deletes what it hits, one undoable step.
        const QPointF end = pane->PaneToImage(a);
        for (const double zoom : {2.0, 0.5}) {
            SCOPED_TRACE(zoom);
            pane->SetZoom(zoom, a);
            const QPointF at = pane->ImageToPane(end);
            // 3.5 screen pixels off: nothing is hit; the click adds nothing.
            Click(*pane, at + QPointF(3.5, 0), Qt::AltModifier);
            Click(*pane, at + QPointF(-3.5, 3.5), Qt::AltModifier);
            EXPECT_EQ(Drawn(), 1);
            // 2.5 off in both directions: the end is hit and deleted.
            Click(*pane, at + QPointF(2.5, -2.5), Qt::AltModifier);
            ExpectTheDeletionUndoes(dialog);
            Undo(dialog);
        }
    });
}

// Calibration from the middle handle: a line along a bowed edge of the
// room and the fit point dragged onto the edge give the photograph's focal
// length (15 mm) back; a fit point on the chord fails with the alert.
TEST_F(Tools, TheMiddleHandleCalibratesTheFocalLength) {
    SampleGen::SceneOptions scene;  // the demo photograph's
    const double truth = SampleGen::focalPixels(scene);
    // The most bowed edge the Fisheye model shows.
    SampleGen::Point a{}, b{}, m{};
    double best = 0;
    for (const SampleGen::SceneEdge& e : SampleGen::roomEdges(scene)) {
        if (e.points.size() < 16)
            continue;
        const auto seen = [&](SampleGen::Point p) {
            return std::hypot(p.x - 1500, p.y - 1000) < truth * 1.3;
        };
        const SampleGen::Point p = e.points.front(), q = e.points.back(),
                               r = e.points[e.points.size() / 2];
        const double bow = std::abs((q.x - p.x) * (r.y - p.y) - (q.y - p.y) * (r.x - p.x)) /
                           std::hypot(q.x - p.x, q.y - p.y);
        if (seen(p) && seen(q) && bow > best)
            best = bow, a = p, b = q, m = r;
    }
    ASSERT_GT(best, 20.0);
    Edit([&](QWidget& dialog) {
        PreviewOff(dialog);
        Velmo::CSlider& focal = Slider(dialog, "FocalLengthSlider");
        // Start away from the truth, so the calibration has to find it.
        TypeInto(dialog, "FocalLengthSlider", "20");
        ASSERT_NEAR(focal.Value(), 20.0, 1e-6);

        const QPointF pa = ToPane(a.x, a.y), pb = ToPane(b.x, b.y);
        Drag(*pane, pa, pb);
        const QPointF middle = (pa + pb) / 2;
        // On the chord: no focal length puts the three points on a great circle.
        {
            ModalAnswers answers;
            QString alert;
            answers.Answer("OK", &alert);
            Drag(*pane, middle, middle + (pb - pa) / 10);
            EXPECT_EQ(answers.Pending(), 0u);
            EXPECT_EQ(alert.toStdString(),
                      "Failed to Calibrate. You may need to adjust the constraint more precisely "
                      "or try another constraint.");
        }
        EXPECT_NEAR(focal.Value(), 20.0, 1e-6);
        EXPECT_EQ(UndoLabel(dialog), "Undo Add Constraint");

        Drag(*pane, middle, ToPane(m.x, m.y));
        EXPECT_EQ(UndoLabel(dialog), "Undo UI Setting");
        EXPECT_NEAR(focal.Value(), scene.focalMm, 0.02 * scene.focalMm);
        Undo(dialog);
        EXPECT_NEAR(focal.Value(), 20.0, 1e-6);
    });
}

// On the corrected preview: a line drawn with Shift is fitted, the warp is
// solved again without blocking the pane, and undo brings the picture back.
TEST_F(Tools, ALineDrawnOnTheCorrectedPreviewIsSolvedAndUndone) {
    Edit([&](QWidget& dialog) {
        ASSERT_TRUE(ViewAs<QCheckBox>(dialog, "Project/Dialog/PreviewResultCheck")->isChecked());
        const QImage before = GrabPreview(dialog);
        const QPointF c(pane->width() / 2.0, pane->height() / 2.0);
        // A slanted segment marked Vertical: the solve must stand it upright.
        Drag(*pane, c - QPointF(50, 140), c + QPointF(50, 140), Qt::ShiftModifier);
        EXPECT_EQ(UndoLabel(dialog), "Undo Add Constraint");
        EXPECT_EQ(Drawn(), 1) << "drawn at once, before the solve";
        ASSERT_TRUE(WaitForPreview(dialog));
        EXPECT_GT(MeanDifference(before, GrabPreview(dialog)), 1.0);
        const auto saved = Saved(dialog);
        ASSERT_EQ(saved->Size(), 1u);
        EXPECT_EQ(Project::AsLine(*saved->At(0))->GetOrientation(), Orientation::Vertical);

        // An end dragged where the warp shows nothing: the line just drawn
        // goes back as it was drawn and the drag ends there.
        const auto end = [&] { return SavedLine(dialog)->Second(); };
        const PointF drawnEnd = end();
        // The solve stood the line upright about the pane's centre.
        const std::optional<QPointF> found = FindCursor(
            *pane, c + QPointF(0, 125), Velmo::CCursors::Picture(Velmo::CCursorKind::Move), 20);
        ASSERT_TRUE(found) << "the end is not shown upright below the centre";
        const QPointF endAt = *found;
        const QPointF outside = pane->ImageToPane(QPointF(-60, -60));
        const QPointF inside = endAt + QPointF(-30, -20);
        Press(*pane, endAt);
        Move(*pane, inside);
        Move(*pane, outside);
        Move(*pane, inside + QPointF(-20, 0));
        Release(*pane, inside + QPointF(-20, 0));
        EXPECT_EQ(UndoLabel(dialog), "Undo Add Constraint");
        EXPECT_LT(std::hypot(end().x - drawnEnd.x, end().y - drawnEnd.y), 0.01);
        ASSERT_TRUE(WaitForPreview(dialog));

        // Once adjusted, a refused end keeps its last accepted point and the
        // line shows as unusable until the drag ends.
        Drag(*pane, endAt, inside);
        EXPECT_EQ(UndoLabel(dialog), "Undo Adjust Constraint");
        ASSERT_TRUE(WaitForPreview(dialog));
        const std::optional<QPointF> adjusted =
            FindCursor(*pane, inside, Velmo::CCursors::Picture(Velmo::CCursorKind::Move), 20);
        ASSERT_TRUE(adjusted);
        const PointF before2 = end();
        Press(*pane, *adjusted);
        Move(*pane, *adjusted + QPointF(-25, 10));
        Move(*pane, outside);
        pane->repaint();
        EXPECT_EQ(pane->property("constraintsDrawnInvalid").toInt(), 1);
        Release(*pane, outside);
        EXPECT_EQ(UndoLabel(dialog), "Undo Adjust Constraint");
        const PointF accepted = end();
        EXPECT_GT(std::hypot(accepted.x - before2.x, accepted.y - before2.y), 5.0);
        EXPECT_TRUE(accepted.x > 0 && accepted.y > 0);
        ASSERT_TRUE(WaitForPreview(dialog));
        EXPECT_EQ(Drawn(), 1);
        EXPECT_EQ(pane->property("constraintsDrawnInvalid").toInt(), 0);

        for (int step = 0; step < 3; ++step)
            Undo(dialog);
        ASSERT_TRUE(WaitForPreview(dialog));
        EXPECT_LT(MeanDifference(before, GrabPreview(dialog)), 0.5);
    });
}

// ------------------------------------------------------------------ end to end

using Rgb = std::array<int, 3>;

// A coloured strip of the picture, running along y (`alongY`) or x: for each
// line across it, the mean position of the pixels in `across` that
// `colour` accepts (3 at least), fitted by a line. The fit must stay within
// 1.5 pixels and 0.2 degrees of the axis, leaving out one in `trim` lines
// at each end. The strip's mean position across.
double ExpectStraightStrip(const char* name, const Raster& picture, bool alongY,
                           std::pair<int32_t, int32_t> along, std::pair<int32_t, int32_t> across,
                           const std::function<bool(Rgb)>& colour, size_t trim = 0) {
    SCOPED_TRACE(name);
    const size_t px = picture.pixelBytes();
    std::vector<std::pair<double, double>> centres;  // (along, across)
    for (int32_t t = along.first; t < along.second; ++t) {
        double sum = 0;
        int n = 0;
        for (int32_t u = across.first; u < across.second; ++u) {
            const uint8_t* p =
                picture.row(alongY ? t : u) + px * static_cast<size_t>(alongY ? u : t);
            if (colour(Rgb{p[0], p[1], p[2]}))
                sum += u, ++n;
        }
        if (n >= 3)
            centres.emplace_back(t, sum / n);
    }
    EXPECT_GT(centres.size(), 300u);
    const auto cut = static_cast<ptrdiff_t>(trim ? centres.size() / trim : 0);
    centres = {centres.begin() + cut, centres.end() - cut};
    // x = a t + b over the samples (t along the strip, x across).
    double st = 0, sx = 0, stt = 0, stx = 0;
    for (const auto& [t, x] : centres)
        st += t, sx += x, stt += t * t, stx += t * x;
    const double n = static_cast<double>(centres.size());
    const double a = (n * stx - st * sx) / (n * stt - st * st), b = (sx - a * st) / n;
    double worst = 0;
    for (const auto& [t, x] : centres)
        worst = std::max(worst, std::abs(x - (a * t + b)));
    EXPECT_LE(worst, 1.5);
    EXPECT_LE(std::atan(std::abs(a)) * 180.0 / M_PI, 0.2);
    return sx / n;
}

// Drawn through the tools on the demo photograph, the room's upright and
// level edges come out of `curvana edit` straight and upright (measured on
// the written picture: the coloured strips along the room's corners, floor
// and ceiling).
TEST_F(Tools, EdgesDrawnWithTheToolsComeOutStraightAndUpright) {
    SampleGen::SceneOptions scene;  // the demo photograph's
    const double reach = SampleGen::focalPixels(scene) * std::sqrt(2.0) - 40;
    struct Edge {
        SampleGen::Point a, b;
    };
    std::vector<Edge> edges;
    for (const SampleGen::SceneEdge& e : SampleGen::roomEdges(scene)) {
        const auto same = [](double u, double v) { return std::abs(u - v) < 1e-9; };
        const bool upright = same(e.a[0], e.b[0]) && same(e.a[2], e.b[2]);
        const bool level = same(e.a[1], e.b[1]) && same(e.a[2], e.b[2]);
        if (!upright && !level)
            continue;
        // The part of the edge the Fisheye model shows.
        std::vector<SampleGen::Point> seen;
        for (const SampleGen::Point& p : e.points)
            if (std::hypot(p.x - 1500, p.y - 1000) < reach)
                seen.push_back(p);
        if (seen.size() >= 16)
            edges.push_back({seen.front(), seen.back()});
    }
    ASSERT_GE(edges.size(), 8u);

    const int code = Edit([&](QWidget& dialog) {
        PreviewOff(dialog);
        // The hand key makes every press start a line, also on the end
        // of one drawn before (edges meet at the room's corners); Shift
        // at the release marks it Horizontal or Vertical.
        QTest::keyPress(pane, Qt::Key_Space);
        for (const Edge& e : edges) {
            const QPointF from = ToPane(e.a.x, e.a.y), to = ToPane(e.b.x, e.b.y);
            Press(*pane, from);
            Move(*pane, (from + to) / 2);
            Move(*pane, to, Qt::ShiftModifier);
            Release(*pane, to, Qt::ShiftModifier);
        }
        QTest::keyRelease(pane, Qt::Key_Space);
        ASSERT_EQ(Drawn(), static_cast<int>(edges.size()));
        QTest::mouseClick(ViewAs<QPushButton>(dialog, "Project/Dialog/OKButton"), Qt::LeftButton);
    });
    ASSERT_EQ(code, kExitOk);
    const Raster picture = readWhole(dir / "out.png");
    const int32_t w = picture.info.width, h = picture.info.height;
    ASSERT_EQ(w, 3000);
    ASSERT_GE(picture.pixelBytes(), 3u);
    const auto red = [](Rgb c) { return c[0] > 130 && c[1] < 80 && c[2] < 80; };
    const auto blue = [](Rgb c) { return c[2] > 130 && c[0] < 80 && c[1] < 110; };
    const auto yellow = [](Rgb c) { return c[0] > 150 && c[1] > 110 && c[2] < 70; };

    // The room's upright corners, the red strips in the left and right half
    // (their ends meet floor and ceiling: left out); between them, the
    // front wall's floor and ceiling edges.
    const double left =
        ExpectStraightStrip("left corner", picture, true, {0, h}, {0, w / 2}, red, 20);
    const double right =
        ExpectStraightStrip("right corner", picture, true, {0, h}, {w / 2, w}, red, 20);
    ASSERT_LT(left + 200, right);
    const std::pair wall{static_cast<int32_t>(left) + 40, static_cast<int32_t>(right) - 40};
    ExpectStraightStrip("floor edge", picture, false, wall, {h / 2, h}, blue);
    ExpectStraightStrip("ceiling edge", picture, false, wall, {0, h / 2}, yellow);
}

}  // namespace
}  // namespace Curvana::Host::Test
