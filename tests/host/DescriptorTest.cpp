// Action descriptors: the suite the module uses, their JSON form, and the
// descriptor an `apply` builds from its options.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <tuple>

#include "HostTestUtil.h"
#include "host/ApplyDescriptor.h"
#include "host/Descriptor.h"

namespace Curvana::Host::Test {
namespace {

constexpr uint32_t kFoc = CV_FOURCC('f', 'o', 'c', 'L'), kPrj = CV_FOURCC('p', 'r', 'j', 'M');
constexpr uint32_t kCrp = CV_FOURCC('C', 'r', 'p', 'F'), kPhy = CV_FOURCC('P', 'h', 'y', 'F');

TEST(Base64, MatchesTheStandardVectors) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"foobar", "Zm9vYmFy"}};
    for (const auto& [plain, coded] : cases) {
        const std::vector<uint8_t> bytes(plain.begin(), plain.end());
        EXPECT_EQ(base64Encode(bytes), coded);
        EXPECT_EQ(base64Decode(coded), bytes);
    }
    EXPECT_FALSE(base64Decode("Zm9").has_value());
    EXPECT_FALSE(base64Decode("Zm=v").has_value());
    EXPECT_FALSE(base64Decode("Zm9*").has_value());
}

TEST(FourCC, SpellsPrintableCodesAndHexForTheRest) {
    EXPECT_EQ(fourccToString(kPrj), "prjM");
    EXPECT_EQ(fourccFromString("prjM"), kPrj);
    EXPECT_EQ(fourccToString(1), "0x00000001");
    EXPECT_EQ(fourccFromString("0x00000001"), 1u);
    EXPECT_FALSE(fourccFromString("prj").has_value());
}

TEST(DescriptorJson, RoundTripsEveryTypeInOrder) {
    Descriptor d;
    d.putEnumerated(kPrj, kPrj, CV_FOURCC('f', 'i', 's', 'P'));
    d.putFloat(kFoc, 1250.25);
    d.putInteger(CV_FOURCC('i', 'm', 'g', 'S'), -120);
    DescriptorEntry flag;
    flag.key = CV_FOURCC('f', 'l', 'a', 'g');
    flag.type = cvTypeBoolean;
    flag.boolean = true;
    d.put(flag);
    DescriptorEntry data;
    data.key = CV_FOURCC('c', 'n', 's', 'D');
    data.type = cvTypeRawData;
    data.data = {0, 1, 2, 0xFF, 0x80, 'x'};
    d.put(data);
    const auto back = descriptorFromJson(nlohmann::json::parse(descriptorToJson(d).dump()), "test");
    ASSERT_EQ(back->entries().size(), 5u);
    const auto fields = [](const DescriptorEntry& e) {
        return std::tie(e.key, e.type, e.integer, e.number, e.boolean, e.enumValue, e.data);
    };
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(fields(d.entries()[i]), fields(back->entries()[i])) << i;
}

std::string loadError(const fs::path& path) {
    try {
        loadAction(path);
    } catch (const HostError& e) {
        EXPECT_EQ(e.code(), kExitUsage);
        return e.what();
    }
    return "";
}

// Every refusal is one line, a HostError and never anything else: numbers out
// of range, integers past 64 bits, folders and endless files included.
TEST(DescriptorJson, ExplainsEveryRefusalInOneLine) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{ \"curvanaAction\": 1, ", "not valid JSON"},
        {"[]", "must be a JSON object"},
        {"{\"descriptor\": []}", "curvanaAction"},
        {R"({"curvanaAction":1,"descriptor":[{"key":"toolong","type":"integer","value":1}]})",
         "four-character"},
        {R"({"curvanaAction":1,"descriptor":[{"key":"imgS","type":"float","value":1}]})",
         "unknown type"},
        {R"({"curvanaAction":1,"descriptor":[{"key":"imgS","type":"integer","value":4294967296}]})",
         "32-bit"},
        {R"({"curvanaAction":1,"descriptor":[{"key":"imgS","type":"integer","value":18446744073709551615}]})",
         "32-bit"},
        {R"({"curvanaAction":1,"descriptor":[{"key":"focL","type":"double","value":1e400}]})",
         "out of range"},
        {R"({"curvanaAction":1,"descriptor":[{"key":"imgS","type":"integer","value":1.5}]})",
         "whole number"},
        {R"({"curvanaAction":1,"descriptor":[{"key":"cnsD","type":"data","value":"%%%"}]})",
         "base64"},
        {R"({"curvanaAction":1,"descriptor":[{"key":"imgS","type":"integer","value":1},
            {"key":"imgS","type":"integer","value":2}]})",
         "twice"},
        {R"({"curvanaAction":1,"descriptor":[{"key":"prjM","type":"enumerated","value":"fisP"}]})",
         "enumType"},
    };
    ScratchDir dir;
    for (const auto& [text, expected] : cases) {
        std::ofstream(dir / "a.json") << text;
        const std::string message = loadError(dir / "a.json");
        EXPECT_NE(message.find(expected), std::string::npos) << text << " -> " << message;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    }
    EXPECT_NE(loadError(dir.path()).find("is a folder"), std::string::npos);
    EXPECT_NE(loadError("/dev/zero").find("too large"), std::string::npos);
}

TEST(DescriptorSuite, ServesTheModuleAndGuardsItsHandles) {
    const CvDescriptorSuite5* s = descriptorSuite();
    CvDescriptor made = nullptr;
    ASSERT_EQ(s->make(&made), cvNoErr);
    EXPECT_EQ(s->putFloat(made, kFoc, 10.0), cvNoErr);
    EXPECT_EQ(s->putInteger(made, kPrj, 3), cvNoErr);
    EXPECT_EQ(s->putFloat(made, kFoc, 20.0), cvNoErr);  // replaced in place
    uint32_t count = 0, key = 0, type = 0;
    s->count(made, &count);
    EXPECT_EQ(count, 2u);
    s->keyAt(made, 0, &key, &type);
    EXPECT_EQ(key, kFoc);
    EXPECT_EQ(type, static_cast<uint32_t>(cvTypeFloat));
    double v = 0;
    EXPECT_EQ(s->getFloat(made, kFoc, &v), cvNoErr);
    EXPECT_EQ(v, 20.0);
    int32_t i = 0;
    EXPECT_NE(s->getInteger(made, kFoc, &i), cvNoErr);  // wrong type
    const char bytes[] = "abc";
    EXPECT_EQ(s->putData(made, CV_FOURCC('c', 'n', 's', 'D'), bytes, 3), cvNoErr);
    int32_t length = 0;
    s->getDataLength(made, CV_FOURCC('c', 'n', 's', 'D'), &length);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(s->release(made), cvNoErr);
    EXPECT_EQ(s->count(made, &count), cvErrParam);  // stale handle

    Descriptor hostOwned;
    EXPECT_EQ(s->release(hostOwned.handle()), cvErrParam);  // not the module's to release
    int garbage = 0;
    EXPECT_EQ(s->count(reinterpret_cast<CvDescriptor>(&garbage), &count), cvErrParam);
}

// The host passes on what the user said and nothing it worked out itself:
// the filter completes the rest from the photo.
TEST(ApplyDescriptor, CarriesTheOptionsOverTheReplayedAction) {
    CliOptions o;
    o.projection = "perspective";
    EXPECT_EQ(applyDescriptor(o, nullptr)->entries().size(), 1u);

    Descriptor params;
    params.putFloat(kFoc, 777);
    params.putFloat(kCrp, 2.0);
    EXPECT_DOUBLE_EQ(*applyDescriptor(o, &params)->getFloat(kFoc), 777);  // a replay is kept
    o.focalMm = 10.5;
    const auto d = applyDescriptor(o, &params);
    EXPECT_EQ(d->find(kFoc), nullptr) << "the filter derives it from the new focal length";
    EXPECT_DOUBLE_EQ(*d->getFloat(kPhy), 10.5);
    EXPECT_DOUBLE_EQ(*d->getFloat(kCrp), 2.0);
    EXPECT_EQ(d->find(kPrj)->enumValue, CV_FOURCC('p', 'e', 'r', 'P'));
}

TEST(CommandLine, RefusesBadUsageWithAReason) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"frobnicate"}, "unknown command"},
        {{"apply", "a.jpg"}, "-o"},
        {{"apply", "-o", "b.jpg"}, "no input"},
        {{"apply", "a", "-o", "b", "--projection", "round"}, "fisheye"},
        {{"apply", "a", "-o", "b", "--focal-mm", "x"}, "not a number between 1 and 1000"},
        {{"apply", "a", "-o", "b", "--crop", "20"}, "between 0.1 and 10"},
        {{"repeat", "a", "-o", "b", "--crop", "2"}, "only"},
        {{"--version", "--quiet"}, "only --module"},
        {{"apply", "a", "-o", "b", "--bogus"}, "unknown option"}};
    for (const auto& [args, reason] : cases) {
        try {
            parseCommandLine(args);
            ADD_FAILURE() << args[0] << " " << reason;
        } catch (const HostError& e) {
            EXPECT_EQ(e.code(), kExitUsage);
            EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
        }
    }
    const auto ok = parseCommandLine(
        {"apply", "a", "b", "-o", "d", "--regularizer", "panini", "--crop", "1.6"});
    ASSERT_TRUE(ok.has_value());
    EXPECT_EQ(ok->inputs.size(), 2u);
    EXPECT_EQ(*ok->crop, 1.6);
}

}  // namespace
}  // namespace Curvana::Host::Test
