#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "FakeWorkspace.h"
#include "editor/PSettingsFields.h"
#include "editor/PTasks.h"

namespace Project {
namespace {

using test::FakeWorkspace;

// Adds a line as the tool does, then pushes its task.
int32_t AddLine(FakeWorkspace& ws, PTaskStack& stack, PointF a, PointF b,
                Orientation o = Orientation::Unfixed) {
    const int32_t id = ws.set.Add(std::make_unique<LineConstraint>(a.x, a.y, b.x, b.y, o));
    stack.Push(std::make_unique<PAddConstraintTask>(ws, *ws.set.Find(id)));
    return id;
}

LineConstraint& Line(FakeWorkspace& ws, int32_t id) {
    return *AsLine(*ws.set.Find(id));
}

TEST(Tasks, AddAndDeleteUndoAndRedoKeepTheIdAndRepairTheSelection) {
    FakeWorkspace ws;
    PTaskStack stack;
    const int32_t first = AddLine(ws, stack, {10, 10}, {200, 12});
    const int32_t second = AddLine(ws, stack, {50, 300}, {52, 40}, Orientation::Vertical);
    EXPECT_EQ(stack.UndoLabel(), "Undo Add Constraint");
    ws.set.SetSelection({second, first});

    stack.Undo();
    EXPECT_EQ(ws.set.Find(second), nullptr);
    EXPECT_EQ(ws.removing, std::vector<int32_t>{second});
    EXPECT_EQ(ws.set.Selection(), std::vector<int32_t>{first});
    EXPECT_EQ(ws.resolves, 1);
    // The task holds its own copy: the list's changes do not reach it.
    Line(ws, first).SetFirst({0, 0});
    stack.Redo();
    ASSERT_NE(ws.set.Find(second), nullptr);
    EXPECT_EQ(Line(ws, second).First(), (PointF{50, 300}));
    EXPECT_EQ(Line(ws, second).GetOrientation(), Orientation::Vertical);
    EXPECT_EQ(ws.resolves, 2);

    // A deletion is pushed just before the removal; undo brings the same
    // constraint back, redo takes it away again.
    stack.Push(std::make_unique<PDeleteConstraintTask>(ws, *ws.set.Find(first)));
    ws.set.Remove(first);
    ws.set.SetSelection({first, second});
    EXPECT_EQ(stack.UndoLabel(), "Undo Delete Constraint");
    stack.Undo();
    ASSERT_NE(ws.set.Find(first), nullptr);
    EXPECT_EQ(Line(ws, first).Second(), (PointF{200, 12}));
    EXPECT_EQ(ws.set.Selection(), std::vector<int32_t>{first});
    stack.Redo();
    EXPECT_EQ(ws.set.Find(first), nullptr);
    // No selected id names a constraint now: the selection is left as it is.
    EXPECT_EQ(ws.set.Selection(), std::vector<int32_t>{first});
    EXPECT_EQ(ws.removing, (std::vector<int32_t>{second, first}));
}

TEST(Tasks, AdjustAlternatesBetweenTheGeometryBeforeAndAfterTheDrag) {
    FakeWorkspace ws;
    PTaskStack stack;
    // A line: the tool backs it up, the drag moves an end.
    const int32_t line = AddLine(ws, stack, {10, 10}, {100, 10});
    const std::unique_ptr<LineConstraint> backup = Line(ws, line).CloneLine();
    Line(ws, line).SetSecond({100, 80});
    stack.Push(std::make_unique<PAdjustConstraintTask>(ws, Line(ws, line), *backup));
    // Only the endpoints swap: an orientation set meanwhile stays.
    Line(ws, line).SetOrientation(Orientation::Horizontal);
    const PointF before{100, 10}, after{100, 80};
    for (const PointF expected : {before, after, before}) {
        if (expected == before)
            stack.Undo();
        else
            stack.Redo();
        EXPECT_EQ(Line(ws, line).Second(), expected);
        EXPECT_EQ(Line(ws, line).GetOrientation(), Orientation::Horizontal);
    }

    // A polygon: all its vertices swap.
    auto plane = std::make_unique<PlaneConstraint>();
    for (const PointF p : {PointF{0, 0}, PointF{50, 0}, PointF{50, 50}})
        plane->AddVertex(p, 1);
    const int32_t id = ws.set.Add(std::move(plane));
    PlaneConstraint& live = *AsPlane(*ws.set.Find(id));
    const std::unique_ptr<PlaneConstraint> planeBackup = live.ClonePlane();
    live.SetVertexPosition(2, {70, 60});
    stack.Push(std::make_unique<PAdjustConstraintTask>(ws, live, *planeBackup));
    const int resolves = ws.resolves;
    stack.Undo();
    EXPECT_EQ(live.Vertices(), planeBackup->Vertices());
    stack.Redo();
    EXPECT_EQ(live.Vertex(2).x, 70.0f);
    stack.Undo();
    EXPECT_EQ(live.Vertex(2).x, 50.0f);
    EXPECT_EQ(ws.resolves, resolves + 3);
    EXPECT_EQ(stack.RedoLabel(), "Redo Adjust Constraint");
}

TEST(Tasks, UndoOfAnOrientationToggleRestoresThePreviousOrientationAndAngle) {
    FakeWorkspace ws;
    PTaskStack stack;
    const int32_t id = AddLine(ws, stack, {0, 0}, {100, 5});
    Line(ws, id).SetOrientation(Orientation::Unfixed, 12.5f);
    // The tool toggles Unfixed to Horizontal, then records the old state.
    Line(ws, id).SetOrientation(Orientation::Horizontal, 0.0f);
    stack.Push(
        std::make_unique<PMarkConstraintTask>(ws, Line(ws, id), Orientation::Unfixed, 12.5f));
    EXPECT_EQ(stack.UndoLabel(), "Undo Constraint Orientation");
    float angle = -1.0f;
    stack.Undo();
    EXPECT_EQ(Line(ws, id).GetOrientation(angle), Orientation::Unfixed);
    EXPECT_EQ(angle, 12.5f);
    stack.Redo();
    EXPECT_EQ(Line(ws, id).GetOrientation(angle), Orientation::Horizontal);
    EXPECT_EQ(angle, 0.0f);
    stack.Undo();
    EXPECT_EQ(Line(ws, id).GetOrientation(angle), Orientation::Unfixed);
    EXPECT_EQ(angle, 12.5f);

    // A polygon edge: only that edge's code swaps.
    auto plane = std::make_unique<PlaneConstraint>();
    for (const PointF p : {PointF{0, 0}, PointF{50, 0}, PointF{50, 50}, PointF{0, 50}})
        plane->AddVertex(p, 1);
    const int32_t planeId = ws.set.Add(std::move(plane));
    PlaneConstraint& live = *AsPlane(*ws.set.Find(planeId));
    live.SetEdgeCode(2, 3);
    stack.Push(std::make_unique<PMarkPlaneEdgeTask>(ws, live, 2, 1));
    stack.Undo();
    EXPECT_EQ(live.GetEdgeCode(2), 1);
    stack.Redo();
    EXPECT_EQ(live.GetEdgeCode(2), 3);
    for (const int32_t k : {0, 1, 3})
        EXPECT_EQ(live.GetEdgeCode(k), 1);
}

struct FieldCase {
    uint32_t code;
    // Which of the test's fields the code selects: focal trio, projection,
    // regulariser, scale, offsets, colours, loupe size.
    bool focal, projection, regularizer, scale, offsets, colors, loupe;
};

class SettingsTaskFields : public ::testing::TestWithParam<FieldCase> {};

TEST_P(SettingsTaskFields, SwapExactlyTheSelectedFields) {
    const FieldCase& c = GetParam();
    FakeWorkspace ws;
    PTaskStack stack;
    const PSettings before = ws.settings;
    PSettings& live = ws.settings;
    live.focalLength = 2222.0f, live.physicalFocalLength = 24.0f, live.cropFactor = 1.5f;
    live.projectionModel = ProjectionModel::Perspective;
    live.regularizerModel = RegularizerModel::Mercator;
    live.scale = 90, live.offsetX = 0.25f, live.offsetY = 0.75f;
    live.colors[0] = 0xFF000000u, live.loupeSize = 250;
    const PSettings after = live;
    const auto check = [&](const PSettings& expectedIfSelected) {
        const auto pick = [&](bool selected) -> const PSettings& {
            return selected ? expectedIfSelected : after;
        };
        EXPECT_EQ(live.focalLength, pick(c.focal).focalLength);
        EXPECT_EQ(live.physicalFocalLength, pick(c.focal).physicalFocalLength);
        EXPECT_EQ(live.cropFactor, pick(c.focal).cropFactor);
        EXPECT_EQ(live.projectionModel, pick(c.projection).projectionModel);
        EXPECT_EQ(live.regularizerModel, pick(c.regularizer).regularizerModel);
        EXPECT_EQ(live.scale, pick(c.scale).scale);
        EXPECT_EQ(live.offsetY, pick(c.offsets).offsetY);
        EXPECT_EQ(live.colors, pick(c.colors).colors);
        EXPECT_EQ(live.loupeSize, pick(c.loupe).loupeSize);
    };

    const Velmo::CViewId slider = Velmo::ViewIdOf("Project/Dialog/ImageScaleSlider");
    ws.focusable = slider;
    auto task = std::make_unique<PSettingsTask>(ws, before, slider, c.code);
    const PSettingsTask* raw = task.get();
    stack.Push(std::move(task));
    EXPECT_FALSE(raw->Done());
    stack.Undo();
    check(before);
    EXPECT_TRUE(raw->Done());
    // The observer saw the coming values while the live ones were unchanged.
    ASSERT_EQ(ws.changing.size(), 1u);
    EXPECT_EQ(ws.changing[0].comingFocal, c.focal ? before.focalLength : after.focalLength);
    EXPECT_EQ(ws.changing[0].liveFocal, after.focalLength);
    EXPECT_EQ(ws.changing[0].code, c.code);
    EXPECT_EQ(ws.focused, slider);
    EXPECT_EQ(ws.refreshes, 1);
    EXPECT_EQ(ws.redraws, 1);
    stack.Redo();
    check(after);
}

INSTANTIATE_TEST_SUITE_P(
    Codes, SettingsTaskFields,
    ::testing::Values(
        FieldCase{settings_field::kAll, true, true, true, true, true, true, true},
        FieldCase{settings_field::kColors, false, false, false, false, false, true, false},
        FieldCase{settings_field::kFocalLength, true, false, false, false, false, false, false},
        FieldCase{settings_field::kProjectionModel, true, true, false, false, false, false, false},
        FieldCase{settings_field::kRegularizerModel, false, false, true, false, false, false,
                  false},
        FieldCase{settings_field::kPhysicalFocalLength, true, false, false, false, false, false,
                  false},
        FieldCase{settings_field::kCropFactor, true, false, false, false, false, false, false},
        FieldCase{settings_field::kScale, false, false, false, true, false, false, false},
        FieldCase{settings_field::kOffsets, false, false, false, false, true, false, false},
        FieldCase{77, true, true, true, true, true, true, true}));

TEST(Tasks, ASettingsUndoFocusesTheDefaultControlOrNothingWithoutADialog) {
    FakeWorkspace ws;
    PTaskStack stack;
    EXPECT_EQ(SettingsFieldFor("Project/Dialog/FocalLengthInPixel"), settings_field::kFocalLength);
    EXPECT_EQ(SettingsFieldFor("Project/Dialog/ShowMeshCheck"), std::nullopt);
    const PSettings before = ws.settings;
    ws.settings.focalLength = 1234.0f;
    stack.Push(std::make_unique<PSettingsTask>(ws, before,
                                               Velmo::ViewIdOf("Project/Dialog/FocalLengthInPixel"),
                                               settings_field::kFocalLength));
    EXPECT_EQ(stack.UndoLabel(), "Undo UI Setting");
    stack.Undo();  // no control with that id takes focus
    EXPECT_EQ(ws.focused, FakeWorkspace::kDefaultFocus);
    ws.dialog = false;
    ws.focused = Velmo::kNoView;
    stack.Redo();
    EXPECT_EQ(ws.settings.focalLength, 1234.0f);
    EXPECT_EQ(ws.refreshes, 1);
    EXPECT_EQ(ws.focused, Velmo::kNoView);
}

TEST(Tasks, The101stPushDropsTheOldestTask) {
    FakeWorkspace ws;
    PTaskStack stack;
    for (int k = 0; k <= 100; ++k)
        AddLine(ws, stack, {0, float(k)}, {100, float(k)});
    EXPECT_EQ(stack.Size(), 100u);
    int undone = 0;
    while (stack.CanUndo())
        stack.Undo(), ++undone;
    EXPECT_EQ(undone, 100);
    // The first line's addition can no longer be undone.
    ASSERT_EQ(ws.set.Size(), 1u);
    EXPECT_EQ(Line(ws, ws.set.At(0)->GetId()).First(), (PointF{0, 0}));
    EXPECT_EQ(stack.UndoLabel(), "Cannot Undo");
}

}  // namespace
}  // namespace Project
