#include "session/ScriptParameters.h"

#include <gtest/gtest.h>

#include <tuple>

#include "core/FourCC.h"
#include "session/ActionDescriptor.h"

namespace Project {
namespace {

using Enumerated = ActionDescriptor::Enumerated;

// Records what the reader hands to the constraint set.
class RecordingConstraints : public PConstraintData {
public:
    bool Parse(const uint8_t* data, size_t size, PSettings&) override {
        parsed.emplace_back(data, data + size);
        return true;
    }
    size_t SerializedSize() const override { return bytes.size(); }
    void Serialize(uint8_t* out) const override { std::copy(bytes.begin(), bytes.end(), out); }

    std::vector<std::vector<uint8_t>> parsed;
    std::vector<uint8_t> bytes;
};

void Read(const ActionDescriptor& d, PSettings& s, PConstraintData* c = nullptr) {
    ReadScriptDescriptor(DescriptorSuite(), ToHandle(const_cast<ActionDescriptor*>(&d)), s, c);
}

ActionDescriptor Write(const PSettings& s, const PConstraintData* c = nullptr) {
    ActionDescriptor d;
    EXPECT_TRUE(WriteScriptDescriptor(DescriptorSuite(), ToHandle(&d), s, c));
    return d;
}

TEST(ActionDescriptor, KeepsInsertionOrderAndReplacesInPlace) {
    ActionDescriptor d;
    d.Put(FourCC("aaaa"), 1);
    d.Put(FourCC("bbbb"), 2.5);
    d.Put(FourCC("aaaa"), Enumerated{FourCC("type"), FourCC("valu")});
    ASSERT_EQ(d.Count(), 2u);
    EXPECT_EQ(d.Entries()[0].key, FourCC("aaaa"));
    EXPECT_EQ(ActionDescriptor::TypeOf(d.Entries()[0].value),
              static_cast<uint32_t>(cvTypeEnumerated));
    EXPECT_FALSE(d.GetInteger(FourCC("aaaa")));
    EXPECT_EQ(d.GetFloat(FourCC("bbbb")), 2.5);
}

TEST(ActionDescriptor, SuiteReportsTypesAndRefusesMismatches) {
    const CvDescriptorSuite5& suite = DescriptorSuite();
    ASSERT_TRUE(IsCompleteSuite(suite));
    CvDescriptor d = nullptr;
    ASSERT_EQ(suite.make(&d), cvNoErr);
    const uint8_t bytes[] = {1, 2, 3};
    EXPECT_EQ(suite.putData(d, FourCC("data"), bytes, 3), cvNoErr);
    EXPECT_EQ(suite.putBoolean(d, FourCC("bool"), 7), cvNoErr);
    EXPECT_EQ(suite.putData(d, FourCC("bad "), nullptr, 4), cvErrParam);

    uint32_t count = 0;
    uint32_t key = 0;
    uint32_t type = 0;
    EXPECT_EQ(suite.count(d, &count), cvNoErr);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(suite.keyAt(d, 1, &key, &type), cvNoErr);
    EXPECT_EQ(key, FourCC("bool"));
    EXPECT_EQ(type, static_cast<uint32_t>(cvTypeBoolean));
    EXPECT_EQ(suite.keyAt(d, 2, &key, &type), cvErrParam);

    int32_t length = 0;
    int32_t i = 0;
    uint8_t b = 0;
    uint8_t out[2] = {};
    EXPECT_EQ(suite.getDataLength(d, FourCC("data"), &length), cvNoErr);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(suite.getData(d, FourCC("data"), out, 2), cvNoErr);  // copies what fits
    EXPECT_EQ(out[1], 2);
    EXPECT_EQ(suite.getBoolean(d, FourCC("bool"), &b), cvNoErr);
    EXPECT_EQ(b, 1);
    EXPECT_EQ(suite.getInteger(d, FourCC("bool"), &i), cvErrParam);
    EXPECT_EQ(suite.getInteger(d, FourCC("none"), &i), cvErrParam);
    EXPECT_EQ(suite.release(d), cvNoErr);
}

TEST(ScriptParameters, EnumeratorMappingsAreAsymmetric) {
    EXPECT_EQ(ProjectionFromEnum(FourCC("fisP")), ProjectionModel::Fisheye);
    EXPECT_EQ(ProjectionFromEnum(FourCC("perP")), ProjectionModel::Perspective);
    EXPECT_EQ(ProjectionFromEnum(FourCC("autP")), ProjectionModel::Auto);
    EXPECT_EQ(ProjectionFromEnum(FourCC("fusP")), ProjectionModel::FullSpherical);
    EXPECT_EQ(ProjectionFromEnum(FourCC("panP")), ProjectionModel::Fisheye);
    EXPECT_EQ(ProjectionFromEnum(FourCC("what")), ProjectionModel::Fisheye);
    EXPECT_EQ(EnumFromProjection(ProjectionModel::Auto), FourCC("autP"));
    EXPECT_EQ(EnumFromProjection(static_cast<ProjectionModel>(7)), FourCC("autP"));
    EXPECT_EQ(EnumFromProjection(ProjectionModel::FullSpherical), FourCC("fusP"));

    EXPECT_EQ(RegularizerFromEnum(FourCC("steR")), RegularizerModel::Stereographic);
    EXPECT_EQ(RegularizerFromEnum(FourCC("merR")), RegularizerModel::Mercator);
    EXPECT_EQ(RegularizerFromEnum(FourCC("panR")), RegularizerModel::Panini);
    EXPECT_EQ(RegularizerFromEnum(FourCC("xxxx")), RegularizerModel::Auto);
    EXPECT_EQ(EnumFromRegularizer(RegularizerModel::Equirectangular), FourCC("autR"));
    EXPECT_EQ(EnumFromRegularizer(RegularizerModel::Mercator), FourCC("merR"));
}

TEST(ScriptParameters, WritesKeysInTheFixedOrderAndReadsThemBack) {
    PSettings written(1000);
    written.projectionModel = ProjectionModel::FullSpherical;
    written.regularizerModel = RegularizerModel::Panini;
    written.focalLength = 999.0f, written.physicalFocalLength = 8.0f, written.cropFactor = 2.0f;
    written.scale = 80, written.offsetX = 0.125f, written.offsetY = 0.875f;
    written.s1 = 1;  // crop to content
    RecordingConstraints out;
    out.bytes = {1, 2, 3, 4};
    const ActionDescriptor d = Write(written, &out);

    std::vector<std::string> keys;
    for (const auto& e : d.Entries())
        keys.push_back(FourCCText(e.key));
    EXPECT_EQ(keys, (std::vector<std::string>{"actV", "cnsD", "prjM", "regM", "focL", "PhyF",
                                              "CrpF", "imgS", "imgX", "imgY", "imgC"}));
    EXPECT_EQ(d.GetInteger(FourCC("actV")), 0);
    EXPECT_EQ(d.GetEnumerated(FourCC("prjM")), (Enumerated{FourCC("prjM"), FourCC("fusP")}));
    EXPECT_EQ(d.GetEnumerated(FourCC("regM")), (Enumerated{FourCC("regM"), FourCC("panR")}));
    EXPECT_EQ(d.GetInteger(FourCC("imgS")), 80);

    PSettings read(10);
    RecordingConstraints in;
    Read(d, read, &in);
    const auto fields = [](const PSettings& s) {
        return std::tie(s.projectionModel, s.regularizerModel, s.focalLength, s.physicalFocalLength,
                        s.cropFactor, s.scale, s.offsetX, s.offsetY, s.s1);
    };
    EXPECT_EQ(fields(read), fields(written));
    ASSERT_EQ(in.parsed.size(), 1u);
    EXPECT_EQ(in.parsed[0], out.bytes);

    // A set with nothing to serialise leaves "cnsD" out.
    out.bytes.clear();
    EXPECT_FALSE(Write(written, &out).Find(FourCC("cnsD")));
    EXPECT_FALSE(Write(written).Find(FourCC("cnsD")));
}

TEST(ScriptParameters, AbsentUnknownAndMistypedKeysLeaveFieldsAlone) {
    ActionDescriptor d;
    d.Put(FourCC("regM"), Enumerated{FourCC("regM"), FourCC("merR")});
    d.Put(FourCC("focL"), int32_t{5});  // wrong type
    d.Put(FourCC("zzzz"), 1.0);
    d.Put(FourCC("cnsD"), ActionDescriptor::Data{});  // empty: ignored
    d.Put(FourCC("prjM"), Enumerated{FourCC("prjM"), FourCC("panP")});
    PSettings s(360);
    s.projectionModel = ProjectionModel::Perspective;
    const PSettings before = s;
    RecordingConstraints c;
    Read(d, s, &c);
    EXPECT_EQ(s.regularizerModel, RegularizerModel::Mercator);
    EXPECT_EQ(s.projectionModel, ProjectionModel::Fisheye);  // "panP" reads as Fisheye
    EXPECT_EQ(s.focalLength, before.focalLength);
    EXPECT_EQ(s.cropFactor, before.cropFactor);
    EXPECT_EQ(s.scale, before.scale);
    EXPECT_TRUE(c.parsed.empty());
}

}  // namespace
}  // namespace Project
