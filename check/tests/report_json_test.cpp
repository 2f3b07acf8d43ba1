#include "check/base/words.h"
#include "check/report/report.h"

#include "results.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;

Json parsed(const CheckResult& result) {
    return Json::parse(json_report(result));
}

std::vector<std::string> keys_of(const Json& object) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : object.items())
        keys.push_back(key);
    return keys;
}

using Keys = std::vector<std::string>;

TEST(JsonReport, HasItsKeysInOrder) {
    EXPECT_EQ(keys_of(parsed(slc_result())),
              (Keys{"schema", "program", "verdict", "status", "conversion", "firmware", "target", "parts",
                    "missing", "extra", "rest", "ecc", "second_opinion", "diagnoses", "warnings", "error"}));
}

TEST(JsonReport, EndsWithOneLineFeed) {
    const std::string text = json_report(slc_result());
    EXPECT_EQ(text.substr(text.size() - 3), "\n}\n");
}

TEST(JsonReport, OfADirectory) {
    const Json document = parsed(slc_result_with_differences());
    EXPECT_EQ(document["schema"], 1);
    EXPECT_EQ(document["program"], "nandsmith-check");
    EXPECT_EQ(document["verdict"], "differs");
    EXPECT_EQ(document["status"], 1);
    EXPECT_EQ(document["conversion"].dump(), R"({"type":"slc","block_kb":128,"page_kb":2,"spare":64,)"
                                             R"("two_kb":false,"page_list":false,"key":"development"})");
    EXPECT_EQ(document["firmware"].dump(), R"({"path":"fw.img","bytes":37890123})");
    EXPECT_EQ(document["target"].dump(), R"({"kind":"directory","path":"out"})");
    EXPECT_EQ(document["missing"].dump(), R"(["userdata.img"])");
    EXPECT_EQ(document["extra"].dump(), R"(["old.img"])");
    EXPECT_TRUE(document["rest"].is_null());
    EXPECT_TRUE(document["error"].is_null());
}

TEST(JsonReport, OfAFileThatDiffers) {
    EXPECT_EQ(
        parsed(slc_result_with_differences())["parts"][1].dump(),
        R"({"name":"rootfs","file":"rootfs.img","verdict":"differs","bytes":36765696,"compared":36765696,)"
        R"("first_difference":1182731,"differing_bytes":13,"differing_pages":2,"differences":[)"
        R"({"offset":1182731,"length":1,"block":8,"page":48,"unit":0,"flips":1,)"
        R"("expected":64,"actual":65,"kind":"correctable"},)"
        R"({"offset":1185988,"length":12,"block":8,"page":49,"unit":1,"flips":31,)"
        R"("expected":64,"actual":65,"kind":"not-correctable"}],"differences_found":2,)"
        R"("found_at":null,"skipped_blocks":[],"flips":32,)"
        R"("missing_bytes":0,"surplus_bytes":0,"unreadable_bytes":0,"note":null})");
}

TEST(JsonReport, OfAPartOfADevice) {
    const Json document = parsed(device_result());
    EXPECT_EQ(document["target"].dump(), R"({"kind":"device","path":"/dev/mmcblk0","past_the_cache":true})");
    const Json& part = document["parts"][2];
    EXPECT_EQ(keys_of(part)[1], "first_sector");
    EXPECT_EQ(part["first_sector"], 1088);
    EXPECT_EQ(part["sectors"], 1024);
    EXPECT_FALSE(part.contains("file"));
    EXPECT_EQ(part["note"], "copy 1 is good");
    EXPECT_EQ(part["differences"][0].dump(),
              R"({"offset":558092,"length":4,"block":4,"page":16,"sector":1090,"flips":9,)"
              R"("expected":64,"actual":65})");
    EXPECT_EQ(document["parts"][3]["verdict"], "ignored");
    EXPECT_EQ(document["rest"].dump(), R"({"offset":92274688,"bytes":31176261632,"content":"not-empty"})");
    EXPECT_TRUE(document["ecc"].is_null());
}

TEST(JsonReport, DoesNotGuessFlipsThatAreNotListed) {
    CheckResult result = slc_result_with_differences();
    result.parts[1].runs_found = 3;
    const Json document = parsed(result);
    EXPECT_TRUE(document["parts"][1]["flips"].is_null());
    EXPECT_EQ(document["parts"][1]["differences_found"], 3);
    EXPECT_EQ(document["parts"][0]["flips"], 0);
}

TEST(JsonReport, LeavesTheKindOutWhenItIsNotKnown) {
    CheckResult result = slc_result_with_differences();
    result.parts[1].runs_found = 3;
    result.parts[1].runs.pop_back();
    EXPECT_FALSE(parsed(result)["parts"][1]["differences"][0].contains("kind"));
    result.geometry = nand_geometry();
    const Json difference = parsed(result)["parts"][1]["differences"][0];
    EXPECT_FALSE(difference.contains("kind"));
    EXPECT_FALSE(difference.contains("unit"));
}

TEST(JsonReport, OfTroubleBeforeAnythingWasRead) {
    CheckResult result;
    result.verdict = Verdict::kTrouble;
    result.error = "-t is missing";
    const Json document = parsed(result);
    EXPECT_EQ(document["verdict"], "trouble");
    EXPECT_EQ(document["status"], 2);
    EXPECT_EQ(document["error"], "-t is missing");
    EXPECT_TRUE(document["conversion"]["type"].is_null());
    EXPECT_TRUE(document["target"]["kind"].is_null());
    EXPECT_EQ(document["parts"], Json::array());
    EXPECT_TRUE(document["second_opinion"]["verdict"].is_null());
    EXPECT_EQ(keys_of(document).size(), 16u);
}

TEST(JsonReport, OfTheParityOfUnits) {
    CheckResult result = slc_result();
    result.opinion.wrong_units = 3;
    result.opinion.wrong_indexes = 2;
    EXPECT_EQ(parsed(result)["ecc"].dump(),
              R"({"units":34944,"wrong_units":3,"wrong_indexes":2,"flips":null,"uncorrectable":null,)"
              R"("erased":null,"set":null,"cleared":null})");
    result.opinion.units = 0;
    EXPECT_TRUE(parsed(result)["ecc"].is_null());
}

TEST(JsonReport, OfTheSecondOpinion) {
    CheckResult result = slc_result();
    EXPECT_EQ(parsed(result)["second_opinion"].dump(),
              R"({"verdict":"same","findings":[],"findings_found":0,"judged":[]})");
    result.opinion.findings = {"a", "b"};
    result.opinion.findings_found = 7;
    result.opinion.judged = {"boot block"};
    EXPECT_EQ(parsed(result)["second_opinion"].dump(),
              R"({"verdict":"differs","findings":["a","b"],"findings_found":7,"judged":["boot block"]})");
    result.opinion = {};
    EXPECT_TRUE(parsed(result)["second_opinion"]["verdict"].is_null()) << "nothing was judged";
    result.opinion.asked = false;
    EXPECT_EQ(parsed(result)["second_opinion"]["verdict"], "not-asked");
}

TEST(JsonReport, HoldsDiagnosesAndWarnings) {
    CheckResult result = slc_result();
    result.diagnoses = {{"page-list", "try --page_list"}};
    result.warnings = {"-x is ignored"};
    const Json document = parsed(result);
    EXPECT_EQ(document["diagnoses"].dump(), R"([{"code":"page-list","text":"try --page_list"}])");
    EXPECT_EQ(document["warnings"].dump(), R"(["-x is ignored"])");
}

TEST(JsonReport, RepeatsNamesThatAreNotUtf8) {
    CheckResult result = slc_result();
    result.parts[0].name = "a\xFF";
    result.parts[0].file = "a\xFF.img";
    result.target_path = "\x80";
    result.extra = {"fine", "\xC3"};
    const Json document = parsed(result);
    EXPECT_EQ(document["parts"][0]["name"], "a\\xff");
    EXPECT_EQ(document["parts"][0]["name_hex"], "61ff");
    EXPECT_EQ(document["parts"][0]["file_hex"], "61ff2e696d67");
    EXPECT_FALSE(document["parts"][1].contains("name_hex"));
    EXPECT_EQ(document["target"]["path_hex"], "80");
    EXPECT_EQ(document["extra"].dump(), R"(["fine","\\xc3"])");
    EXPECT_EQ(document["extra_hex"].dump(), R"([null,"c3"])");
    EXPECT_FALSE(document.contains("missing_hex"));
}

TEST(JsonReport, KeepsControlBytesOfNames) {
    CheckResult result = slc_result();
    result.parts[0].name = std::string("a\0\033\"\\\n", 6);
    const Json document = parsed(result);
    EXPECT_EQ(document["parts"][0]["name"], result.parts[0].name);
    EXPECT_FALSE(document["parts"][0].contains("name_hex"));
}

/// A report in which every text is the given one.
CheckResult with_text_everywhere(const std::string& text) {
    CheckResult result = slc_result_with_differences();
    result.conversion.type = text;
    result.conversion.key = text;
    result.firmware_path = text;
    result.target_kind = text;
    result.target_path = text;
    for (PartResult& part : result.parts)
        part.name = part.file = part.note = text;
    result.missing = {text};
    result.extra = {text, text};
    result.opinion.findings = {text};
    result.opinion.judged = {text};
    result.diagnoses = {{text, text}};
    result.warnings = {text};
    result.error = text;
    return result;
}

bool is_printable_ascii(char byte) {
    return byte == '\n' || (byte >= ' ' && byte <= '~');
}

void expect_names_come_back(const std::string& name) {
    const std::string text = json_report(with_text_everywhere(name));
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), is_printable_ascii)) << escaped(name);
    const Json document = Json::parse(text);
    const Json& part = document["parts"][0];
    if (!part.contains("name_hex")) {
        EXPECT_EQ(part["name"], name);
        return;
    }
    std::string digits;
    for (const char byte : name) {
        constexpr char kDigits[] = "0123456789abcdef";
        digits += kDigits[static_cast<uint8_t>(byte) >> 4];
        digits += kDigits[static_cast<uint8_t>(byte) & 15];
    }
    EXPECT_EQ(part["name_hex"], digits);
    EXPECT_EQ(part["name"], escaped(name));
}

TEST(JsonReport, ParsesBackWithEverySingleByte) {
    for (int byte = 0; byte < 256; byte++)
        expect_names_come_back(std::string(1, static_cast<char>(byte)));
}

TEST(JsonReport, ParsesBackWithNamesOfRandomBytes) {
    std::mt19937 random(1);
    for (int i = 0; i < 2000; i++) {
        std::string name(random() % 32, '\0');
        for (char& byte : name)
            byte = static_cast<char>(random());
        expect_names_come_back(name);
    }
}

TEST(JsonReport, ParsesBackWithEveryHeadOfACharacter) {
    for (int head = 0xC0; head < 0x100; head++)
        for (const int second : {0x00, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0})
            for (const char* tail : {"", "\x80", "\xBF\xBF", "\xC0", "z"})
                expect_names_come_back({static_cast<char>(head), static_cast<char>(second), tail[0]});
}

TEST(TextReport, IsPrintableWithNamesOfRandomBytes) {
    std::mt19937 random(2);
    for (int i = 0; i < 2000; i++) {
        std::string name(random() % 64, '\0');
        for (char& byte : name)
            byte = static_cast<char>(random());
        const std::string text = text_report(with_text_everywhere(name), {});
        EXPECT_EQ(
            std::count_if(text.begin(), text.end(),
                          [](char byte) { return (byte >= 0 && byte < ' ' && byte != '\n') || byte == 127; }),
            0);
        EXPECT_EQ(text.find(" \n"), std::string::npos);
    }
}

}  // namespace
