#pragma once

#include <string_view>

// The editor dialog's texts and view ids that its code (rather than its
// layout resource) uses.
namespace Project::dialog_text {

// --- Views.
inline constexpr std::string_view kDialog = "Project/Dialog";
inline constexpr std::string_view kPreviewPane = "Project/Dialog/PreviewPane";
inline constexpr std::string_view kLoupePane = "Project/Dialog/DetailedPreviewPane";
inline constexpr std::string_view kZoomCombo = "Project/Dialog/ZoomCombo";
inline constexpr std::string_view kCameraInfo = "Project/Dialog/CameraEXIFInfo";
inline constexpr std::string_view kLensInfo = "Project/Dialog/LensEXIFInfo";
inline constexpr std::string_view kPreviewCheck = "Project/Dialog/PreviewResultCheck";
inline constexpr std::string_view kShowConstraintsCheck = "Project/Dialog/ShowConstraintsCheck";
inline constexpr std::string_view kShowMeshCheck = "Project/Dialog/ShowMeshCheck";
inline constexpr std::string_view kOkButton = "Project/Dialog/OKButton";
inline constexpr std::string_view kCancelButton = "Project/Dialog/CancelButton";
inline constexpr std::string_view kProjectionPopup = "Project/Dialog/ProjectionModelPopup";
inline constexpr std::string_view kCorrectionFlyout = "Project/Dialog/CorrectionFlyout";
inline constexpr std::string_view kSuggestButton = "Project/Dialog/SuggestLinesButton";
inline constexpr std::string_view kScaleSlider = "Project/Dialog/ImageScaleSlider";
inline constexpr std::string_view kFocalSlider = "Project/Dialog/FocalLengthSlider";
inline constexpr std::string_view kCropSlider = "Project/Dialog/CropFactorSlider";
inline constexpr std::string_view kAsShotCheck = "Project/Dialog/AsShotCheck";
inline constexpr std::string_view kSolverInfoPane = "Project/Dialog/SolverInfoPane";
inline constexpr std::string_view kPreferences = "Project/Dialog/Preferences";
inline constexpr std::string_view kMenuBar = "Project/Dialog/MenuBar";
inline constexpr std::string_view kFileMenu = "Project/Menu/File";
inline constexpr std::string_view kEditMenu = "Project/Menu/Edit";
inline constexpr std::string_view kViewMenu = "Project/Menu/View";

// --- Tools.
inline constexpr std::string_view kToolSet = "Project/Tool/MainSet";
inline constexpr std::string_view kMoveTool = "Project/Tool/MoveImage";
inline constexpr std::string_view kHandTool = "Project/Tool/Hand";
inline constexpr std::string_view kZoomTool = "Project/Tool/Zoom";
inline constexpr std::string_view kMoveToolTip = "$$$/Curvana/Tool/MoveImage=Move Tool (M)";
inline constexpr std::string_view kHandToolTip = "$$$/Curvana/Tool/Hand=Hand Tool (H)";
inline constexpr std::string_view kZoomToolTip = "$$$/Curvana/Tool/Zoom=Zoom Tool (Z)";
inline constexpr std::string_view kMoveToolHelp =
    "$$$/Curvana/MoveImageTooltip/Message=Drag to move the content in the canvas.";
inline constexpr std::string_view kHandToolHelp =
    "$$$/Curvana/HandTooltip/Message=Drag to move the image in the window.";
inline constexpr std::string_view kZoomToolHelp =
    "$$$/Curvana/ZoomTooltip/MessageWin=Click or drag over the area you want to zoom in, or to "
    "zoom out with holding Alt.";

// --- Window.
inline constexpr std::string_view kTitle = "$$$/Curvana/Dialog/Title=Curvana (^0 @ ^1%)";
inline constexpr std::string_view kUntitled = "$$$/Curvana/Dialog/Untitled=Untitled";
inline constexpr std::string_view kCameraInfoText =
    "$$$/Curvana/Dialog/CameraEXIFInfo=Camera Model: ^0 (^1)";
inline constexpr std::string_view kLensInfoText = "$$$/Curvana/Dialog/LensEXIFInfo=Lens Model: ^0";
inline constexpr std::string_view kCancelText = "$$$/Curvana/Dialog/CancelButton=Cancel";
inline constexpr std::string_view kResetText = "$$$/Curvana/Dialog/ResetButton=Reset";
inline constexpr std::string_view kDefaultText = "$$$/Curvana/Dialog/DefaultButton=Default";
inline constexpr std::string_view kSolveFailed = "$$$/Curvana/Warning/SolveFailed=Solve failed";
inline constexpr std::string_view kPreviewUnavailable =
    "$$$/Curvana/Dialog/PreviewUnavailable=The preview cannot be drawn: ^0";

// --- Projection popup: item n selects model n + 1; the third item is
// "Panorama" for a photo with panorama metadata and "Auto" otherwise.
inline constexpr std::string_view kFisheyeItem = "$$$/Curvana/TypeProjectionModel/Fisheye=Fisheye";
inline constexpr std::string_view kPerspectiveItem =
    "$$$/Curvana/TypeProjectionModel/Perspective=Perspective";
inline constexpr std::string_view kPanoramaItem =
    "$$$/Curvana/TypeProjectionModel/Panorama=Panorama";
inline constexpr std::string_view kFullSphericalItem =
    "$$$/Curvana/TypeProjectionModel/FullSpherical=Full Spherical";
inline constexpr std::string_view kAutoItem = "$$$/Curvana/TypeProjectionModel/Auto=Auto";

// --- Menus.
inline constexpr std::string_view kFileMenuTitle = "$$$/Curvana/FileMenu/Title=&File";
inline constexpr std::string_view kViewMenuTitle = "$$$/Curvana/ViewMenu/Title=&View";
inline constexpr std::string_view kFileLoad =
    "$$$/Curvana/FileMenu/LoadConstraints=Load Constraints...";
inline constexpr std::string_view kFileSave =
    "$$$/Curvana/FileMenu/SaveConstraints=Save Constraints...";
inline constexpr std::string_view kFlyoutPreferences =
    "$$$/Curvana/CorrectionMenu/Preferences=Preferences...";
inline constexpr std::string_view kFlyoutLoad =
    "$$$/Curvana/CorrectionMenu/LoadConstraints=Load Constraints...";
inline constexpr std::string_view kFlyoutSave =
    "$$$/Curvana/CorrectionMenu/SaveConstraints=Save Constraints...";
inline constexpr std::string_view kFlyoutSuggest =
    "$$$/Curvana/CorrectionMenu/SuggestLines=Suggest Lines";
inline constexpr std::string_view kZoomIn = "$$$/Curvana/ViewMenu/ZoomIn=Zoom In";
inline constexpr std::string_view kZoomOut = "$$$/Curvana/ViewMenu/ZoomOut=Zoom Out";
inline constexpr std::string_view kFitOnScreen = "$$$/Curvana/ViewMenu/FitOnScreen=Fit on Screen";
inline constexpr std::string_view kFitInView = "$$$/Curvana/ViewMenu/FitInView=Fit in View";
inline constexpr std::string_view kActualPixels = "$$$/Curvana/ViewMenu/ActualPixels=Actual Pixels";

// --- Constraint files.
inline constexpr std::string_view kSaveTitle =
    "$$$/Curvana/Dialog/SaveContraints/Title=Save Constraints";
inline constexpr std::string_view kSaveFileType =
    "$$$/Curvana/Dialog/SaveConstraints/FileType/CurvanaConstraints=Curvana Constraints";
inline constexpr std::string_view kSaveDefaultName =
    "$$$/Curvana/Dialog/SaveConstraints/DefaultName=Constraints.cvc";
inline constexpr std::string_view kLoadTitle =
    "$$$/Curvana/Dialog/LoadContraints/Title=Load Constraints";
inline constexpr std::string_view kLoadFileType =
    "$$$/Curvana/Dialog/LoadConstraints/FileType/CurvanaConstraints=Curvana Constraints";
inline constexpr std::string_view kLoadClearQuestion =
    "$$$/Curvana/Warning/LoadClearExistingData=Loading constraints from a file will clear current "
    "data from your workspace. Do you want to proceed?";
inline constexpr std::string_view kSaveFailed =
    "$$$/Curvana/Warning/SaveConstraintsFailed=The constraints could not be written to ^0.";
inline constexpr std::string_view kLoadTaskName =
    "$$$/Curvana/Task/Setting/LoadConstraints=Load Constraints";

// --- Suggested lines.
inline constexpr std::string_view kSuggestTaskName =
    "$$$/Curvana/Task/Setting/SuggestLines=Suggest Lines";
inline constexpr std::string_view kNoLinesFound =
    "$$$/Curvana/Warning/NoLinesFound=No straight edges were found in this photo.";

// --- Escape.
inline constexpr std::string_view kEscMain =
    "$$$/Curvana/Warning/EscAlertMain=Do you want to save the changes you made in the image?";
inline constexpr std::string_view kEscSub =
    "$$$/Curvana/Warning/EscAlertSub=Your changes will be lost if you don't save them.";

}  // namespace Project::dialog_text
