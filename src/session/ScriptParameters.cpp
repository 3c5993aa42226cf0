#include "session/ScriptParameters.h"

#include <limits>
#include <memory>
#include <new>

namespace Project {

ProjectionModel ProjectionFromEnum(uint32_t value) {
    switch (value) {
        case cvProjectionPerspective:
            return ProjectionModel::Perspective;
        case cvProjectionAuto:
            return ProjectionModel::Auto;
        case cvProjectionFullSpherical:
            return ProjectionModel::FullSpherical;
        default:  // "fisP", and "panP" on purpose
            return ProjectionModel::Fisheye;
    }
}

RegularizerModel RegularizerFromEnum(uint32_t value) {
    switch (value) {
        case cvRegularizerStereographic:
            return RegularizerModel::Stereographic;
        case cvRegularizerMercator:
            return RegularizerModel::Mercator;
        case cvRegularizerPanini:
            return RegularizerModel::Panini;
        default:
            return RegularizerModel::Auto;
    }
}

uint32_t EnumFromProjection(ProjectionModel model) {
    switch (model) {
        case ProjectionModel::Fisheye:
            return cvProjectionFisheye;
        case ProjectionModel::Perspective:
            return cvProjectionPerspective;
        case ProjectionModel::FullSpherical:
            return cvProjectionFullSpherical;
        default:
            return cvProjectionAuto;
    }
}

uint32_t EnumFromRegularizer(RegularizerModel model) {
    switch (model) {
        case RegularizerModel::Stereographic:
            return cvRegularizerStereographic;
        case RegularizerModel::Mercator:
            return cvRegularizerMercator;
        case RegularizerModel::Panini:
            return cvRegularizerPanini;
        default:
            return cvRegularizerAuto;
    }
}

bool IsCompleteSuite(const CvDescriptorSuite5& s) {
    return s.make && s.release && s.count && s.keyAt && s.getInteger && s.getFloat &&
           s.getBoolean && s.getEnumerated && s.getDataLength && s.getData && s.putInteger &&
           s.putFloat && s.putBoolean && s.putEnumerated && s.putData;
}

namespace {

bool ReadFloat(const CvDescriptorSuite5& suite, CvDescriptor d, uint32_t key, float& field) {
    double v = 0.0;
    if (suite.getFloat(d, key, &v) != cvNoErr)
        return false;
    field = static_cast<float>(v);
    return true;
}

bool ReadConstraintData(const CvDescriptorSuite5& suite, CvDescriptor d, PSettings& settings,
                        PConstraintData* constraints) {
    int32_t length = 0;
    if (suite.getDataLength(d, cvKeyConstraintData, &length) != cvNoErr || length <= 0)
        return false;
    const auto size = static_cast<size_t>(length);
    const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[size]);
    if (!buffer)
        return false;
    if (suite.getData(d, cvKeyConstraintData, buffer.get(), length) != cvNoErr)
        return false;
    return constraints && constraints->Parse(buffer.get(), size, settings);
}

}  // namespace

ScriptKeysRead ReadScriptDescriptor(const CvDescriptorSuite5& suite, CvDescriptor d,
                                    PSettings& settings, PConstraintData* constraints) {
    ScriptKeysRead read;
    uint32_t count = 0;
    if (suite.count(d, &count) != cvNoErr)
        return read;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t key = 0;
        uint32_t type = 0;
        if (suite.keyAt(d, i, &key, &type) != cvNoErr)
            continue;
        switch (key) {
            case cvKeyScale: {
                int32_t v = 0;
                if (suite.getInteger(d, key, &v) == cvNoErr)
                    settings.scale = v;
                break;
            }
            case cvKeyCropFactor:
                read.cropFactor |= ReadFloat(suite, d, key, settings.cropFactor);
                break;
            case cvKeyPhysicalFocalLength:
                read.physicalFocalLength |= ReadFloat(suite, d, key, settings.physicalFocalLength);
                break;
            case cvKeyFocalLength:
                read.focalLength |= ReadFloat(suite, d, key, settings.focalLength);
                break;
            case cvKeyOffsetX:
                ReadFloat(suite, d, key, settings.offsetX);
                break;
            case cvKeyOffsetY:
                ReadFloat(suite, d, key, settings.offsetY);
                break;
            case cvKeyCropToContent: {
                uint8_t v = 0;
                if (suite.getBoolean(d, key, &v) == cvNoErr)
                    settings.s1 = v != 0 ? 1 : 0;
                break;
            }
            case cvKeyActionVersion: {
                int32_t ignored = 0;
                (void)suite.getInteger(d, key, &ignored);
                break;
            }
            case cvKeyConstraintData:
                read.constraintData |= ReadConstraintData(suite, d, settings, constraints);
                break;
            case cvKeyProjectionModel: {
                uint32_t enumType = 0;
                uint32_t value = 0;
                if (suite.getEnumerated(d, key, &enumType, &value) == cvNoErr) {
                    settings.projectionModel = ProjectionFromEnum(value);
                    read.projection = true;
                }
                break;
            }
            case cvKeyRegularizerModel: {
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
    return read;
}

bool WriteScriptDescriptor(const CvDescriptorSuite5& suite, CvDescriptor d,
                           const PSettings& settings, const PConstraintData* constraints) {
    bool ok = suite.putInteger(d, cvKeyActionVersion, 0) == cvNoErr;

    const size_t size = constraints ? constraints->SerializedSize() : 0;
    if (size > 0 && size <= static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[size]);
        if (buffer) {
            constraints->Serialize(buffer.get());
            ok &= suite.putData(d, cvKeyConstraintData, buffer.get(), static_cast<int32_t>(size)) ==
                  cvNoErr;
        }
    }

    ok &= suite.putEnumerated(d, cvKeyProjectionModel, cvKeyProjectionModel,
                              EnumFromProjection(settings.projectionModel)) == cvNoErr;
    ok &= suite.putEnumerated(d, cvKeyRegularizerModel, cvKeyRegularizerModel,
                              EnumFromRegularizer(settings.regularizerModel)) == cvNoErr;
    ok &= suite.putFloat(d, cvKeyFocalLength, settings.focalLength) == cvNoErr;
    ok &= suite.putFloat(d, cvKeyPhysicalFocalLength, settings.physicalFocalLength) == cvNoErr;
    ok &= suite.putFloat(d, cvKeyCropFactor, settings.cropFactor) == cvNoErr;
    ok &= suite.putInteger(d, cvKeyScale, settings.scale) == cvNoErr;
    ok &= suite.putFloat(d, cvKeyOffsetX, settings.offsetX) == cvNoErr;
    ok &= suite.putFloat(d, cvKeyOffsetY, settings.offsetY) == cvNoErr;
    ok &= suite.putBoolean(d, cvKeyCropToContent, settings.s1 != 0 ? 1 : 0) == cvNoErr;
    return ok;
}

}  // namespace Project
