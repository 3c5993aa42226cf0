#include "session/ScriptParameters.h"

#include <limits>
#include <memory>
#include <new>

namespace Project {

ProjectionModel ProjectionFromEnum(uint32_t value) {
    switch (value) {
        case ScriptEnum::kPerspective:
            return ProjectionModel::Perspective;
        case ScriptEnum::kAutoProjection:
            return ProjectionModel::Auto;
        case ScriptEnum::kFullSpherical:
            return ProjectionModel::FullSpherical;
        default:  // "fisP", and "panP" on purpose
            return ProjectionModel::Fisheye;
    }
}

RegularizerModel RegularizerFromEnum(uint32_t value) {
    switch (value) {
        case ScriptEnum::kStereographic:
            return RegularizerModel::Stereographic;
        case ScriptEnum::kMercator:
            return RegularizerModel::Mercator;
        case ScriptEnum::kPanini:
            return RegularizerModel::Panini;
        default:
            return RegularizerModel::Auto;
    }
}

uint32_t EnumFromProjection(ProjectionModel model) {
    switch (model) {
        case ProjectionModel::Fisheye:
            return ScriptEnum::kFisheye;
        case ProjectionModel::Perspective:
            return ScriptEnum::kPerspective;
        case ProjectionModel::FullSpherical:
            return ScriptEnum::kFullSpherical;
        default:
            return ScriptEnum::kAutoProjection;
    }
}

uint32_t EnumFromRegularizer(RegularizerModel model) {
    switch (model) {
        case RegularizerModel::Stereographic:
            return ScriptEnum::kStereographic;
        case RegularizerModel::Mercator:
            return ScriptEnum::kMercator;
        case RegularizerModel::Panini:
            return ScriptEnum::kPanini;
        default:
            return ScriptEnum::kAutoRegularizer;
    }
}

bool IsCompleteSuite(const CvDescriptorSuite5& s) {
    return s.make && s.release && s.count && s.keyAt && s.getInteger && s.getFloat &&
           s.getBoolean && s.getEnumerated && s.getDataLength && s.getData && s.putInteger &&
           s.putFloat && s.putBoolean && s.putEnumerated && s.putData;
}

namespace {

void ReadFloat(const CvDescriptorSuite5& suite, CvDescriptor d, uint32_t key, float& field) {
    double v = 0.0;
    if (suite.getFloat(d, key, &v) == cvNoErr)
        field = static_cast<float>(v);
}

void ReadConstraintData(const CvDescriptorSuite5& suite, CvDescriptor d, PSettings& settings,
                        PConstraintData* constraints) {
    int32_t length = 0;
    if (suite.getDataLength(d, ScriptKey::kConstraintData, &length) != cvNoErr || length <= 0)
        return;
    const auto size = static_cast<size_t>(length);
    const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[size]);
    if (!buffer)
        return;
    if (suite.getData(d, ScriptKey::kConstraintData, buffer.get(), length) != cvNoErr)
        return;
    if (constraints)
        constraints->Parse(buffer.get(), size, settings);
}

}  // namespace

void ReadScriptDescriptor(const CvDescriptorSuite5& suite, CvDescriptor d, PSettings& settings,
                          PConstraintData* constraints) {
    uint32_t count = 0;
    if (suite.count(d, &count) != cvNoErr)
        return;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t key = 0;
        uint32_t type = 0;
        if (suite.keyAt(d, i, &key, &type) != cvNoErr)
            continue;
        switch (key) {
            case ScriptKey::kScale: {
                int32_t v = 0;
                if (suite.getInteger(d, key, &v) == cvNoErr)
                    settings.scale = v;
                break;
            }
            case ScriptKey::kCropFactor:
                ReadFloat(suite, d, key, settings.cropFactor);
                break;
            case ScriptKey::kPhysicalFocalLength:
                ReadFloat(suite, d, key, settings.physicalFocalLength);
                break;
            case ScriptKey::kFocalLength:
                ReadFloat(suite, d, key, settings.focalLength);
                break;
            case ScriptKey::kOffsetX:
                ReadFloat(suite, d, key, settings.offsetX);
                break;
            case ScriptKey::kOffsetY:
                ReadFloat(suite, d, key, settings.offsetY);
                break;
            case ScriptKey::kActionVersion: {
                int32_t ignored = 0;
                (void)suite.getInteger(d, key, &ignored);
                break;
            }
            case ScriptKey::kConstraintData:
                ReadConstraintData(suite, d, settings, constraints);
                break;
            case ScriptKey::kProjectionModel: {
                uint32_t enumType = 0;
                uint32_t value = 0;
                if (suite.getEnumerated(d, key, &enumType, &value) == cvNoErr)
                    settings.projectionModel = ProjectionFromEnum(value);
                break;
            }
            case ScriptKey::kRegularizerModel: {
                uint32_t enumType = 0;
                uint32_t value = 0;
                if (suite.getEnumerated(d, key, &enumType, &value) == cvNoErr)
                    settings.regularizerModel = RegularizerFromEnum(value);
                break;
            }
            default:
                break;
        }
    }
}

bool WriteScriptDescriptor(const CvDescriptorSuite5& suite, CvDescriptor d,
                           const PSettings& settings, const PConstraintData* constraints) {
    bool ok = suite.putInteger(d, ScriptKey::kActionVersion, 0) == cvNoErr;

    const size_t size = constraints ? constraints->SerializedSize() : 0;
    if (size > 0 && size <= static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[size]);
        if (buffer) {
            constraints->Serialize(buffer.get());
            ok &= suite.putData(d, ScriptKey::kConstraintData, buffer.get(),
                                static_cast<int32_t>(size)) == cvNoErr;
        }
    }

    ok &= suite.putEnumerated(d, ScriptKey::kProjectionModel, ScriptKey::kProjectionModel,
                              EnumFromProjection(settings.projectionModel)) == cvNoErr;
    ok &= suite.putEnumerated(d, ScriptKey::kRegularizerModel, ScriptKey::kRegularizerModel,
                              EnumFromRegularizer(settings.regularizerModel)) == cvNoErr;
    ok &= suite.putFloat(d, ScriptKey::kFocalLength, settings.focalLength) == cvNoErr;
    ok &=
        suite.putFloat(d, ScriptKey::kPhysicalFocalLength, settings.physicalFocalLength) == cvNoErr;
    ok &= suite.putFloat(d, ScriptKey::kCropFactor, settings.cropFactor) == cvNoErr;
    ok &= suite.putInteger(d, ScriptKey::kScale, settings.scale) == cvNoErr;
    ok &= suite.putFloat(d, ScriptKey::kOffsetX, settings.offsetX) == cvNoErr;
    ok &= suite.putFloat(d, ScriptKey::kOffsetY, settings.offsetY) == cvNoErr;
    return ok;
}

}  // namespace Project
