#include "check/firmware/listing.h"
#include "check/report/listing_report.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

namespace {

using Json = nlohmann::ordered_json;

Listing sample() {
    Listing listing;
    listing.firmware_path = "fw.img";
    listing.firmware_bytes = 37890123;
    listing.version = "1.2.34";
    listing.date = "2024-05-17 10:30:00";
    listing.chip = 0x33;
    listing.items = {{"parameter", 612, 2048, 0, 8192, ItemKind::kParameter, -1},
                     {"rootfs", 36765696, 4096, 34816, 143360, ItemKind::kSparse, 12},
                     {"userdata", 0, 0, 178176, kGrows, ItemKind::kEmpty, -1},
                     {"package-file", 540, 36769792, kNoPlace, 0, ItemKind::kNotPlaced, -1}};
    listing.loader_entries = {{"DDRInit", 40960, "471"}, {"FlashBoot", 102400, "loader"}};
    return listing;
}

TEST(TextListing, HasATableOfItemsAndOfLoaderEntries) {
    EXPECT_EQ(text_listing(sample(), false),
              "version 1.2.34, of 2024-05-17 10:30:00, chip 0x00000033, 37890123 bytes\n"
              "\n"
              "item              bytes    at byte   first sector      sectors   kind\n"
              "parameter           612       2048              0         8192   parameter\n"
              "rootfs         36765696       4096          34816       143360   sparse, 12 chunks\n"
              "userdata              0          0         178176   to the end   empty\n"
              "package-file        540   36769792              -            0   not on storage\n"
              "\n"
              "loader entry    bytes   table\n"
              "DDRInit         40960   471\n"
              "FlashBoot      102400   loader\n");
}

TEST(TextListing, SaysTroubleAlone) {
    Listing listing;
    listing.error = "cannot read fw\n.img";
    EXPECT_EQ(text_listing(listing, false), "trouble: cannot read fw\\x0a.img\n");
    EXPECT_EQ(text_listing(listing, true), "\033[31mtrouble\033[0m: cannot read fw\\x0a.img\n");
}

TEST(TextListing, EscapesNamesAndWarnings) {
    Listing listing = sample();
    listing.items[1].name = "root\033[2J";
    listing.loader_entries[0].name = "\xFF";
    listing.warnings = {"a\nb"};
    const std::string text = text_listing(listing, false);
    EXPECT_NE(text.find("\nroot\\x1b[2J "), std::string::npos);
    EXPECT_NE(text.find("\n\\xff "), std::string::npos);
    EXPECT_NE(text.find("\nwarning: a\\x0ab\n"), std::string::npos);
    EXPECT_EQ(text.find('\033'), std::string::npos);
}

TEST(JsonListing, IsOneDocument) {
    Listing listing = sample();
    listing.items.resize(2);
    EXPECT_EQ(Json::parse(json_listing(listing)).dump(),
              R"({"schema":1,"program":"nandsmith-check","status":0,)"
              R"("firmware":{"path":"fw.img","bytes":37890123,"version":"1.2.34",)"
              R"("date":"2024-05-17 10:30:00","chip":51},"items":[)"
              R"({"name":"parameter","kind":"parameter","bytes":612,"package_offset":2048,)"
              R"("first_sector":0,"partition_sectors":8192,"sparse_chunks":null},)"
              R"({"name":"rootfs","kind":"sparse","bytes":36765696,"package_offset":4096,)"
              R"("first_sector":34816,"partition_sectors":143360,"sparse_chunks":12}],)"
              R"("loader_entries":[{"name":"DDRInit","bytes":40960,"type":"471"},)"
              R"({"name":"FlashBoot","bytes":102400,"type":"loader"}],"warnings":[],"error":null})");
}

TEST(JsonListing, HasNullForNoPlaceAndForAGrowingPartition) {
    const Json document = Json::parse(json_listing(sample()));
    EXPECT_TRUE(document["items"][2]["partition_sectors"].is_null());
    EXPECT_TRUE(document["items"][3]["first_sector"].is_null());
    EXPECT_EQ(document["items"][3]["kind"], "not on storage");
}

TEST(JsonListing, HasStatus2WithAnError) {
    Listing listing;
    listing.error = "no firmware";
    const Json document = Json::parse(json_listing(listing));
    EXPECT_EQ(document["status"], 2);
    EXPECT_EQ(document["error"], "no firmware");
    EXPECT_EQ(document["items"], Json::array());
}

TEST(JsonListing, RepeatsNamesThatAreNotUtf8) {
    Listing listing = sample();
    listing.items[0].name = "\xFE";
    listing.loader_entries[0].name = "\x80";
    const Json document = Json::parse(json_listing(listing));
    EXPECT_EQ(document["items"][0]["name_hex"], "fe");
    EXPECT_EQ(document["loader_entries"][0]["name_hex"], "80");
}

}  // namespace
