#pragma once

#include "check/base/result.h"

#include <string>

/// Results of checks, for tests of the reports.

/// Pages of 2 KB with 64 bytes of spare area, 64 to an erase block.
inline Geometry slc_geometry() {
    Geometry geometry;
    geometry.spare_areas = true;
    geometry.page = 2112;
    geometry.block = 64 * 2112;
    geometry.page_data = 2048;
    return geometry;
}

inline Geometry nand_geometry() {
    Geometry geometry;
    geometry.page = 2048;
    geometry.block = 64 * 2048;
    geometry.page_data = 2048;
    return geometry;
}

inline Geometry image_geometry() {
    Geometry geometry = nand_geometry();
    geometry.whole_image = true;
    return geometry;
}

inline PartResult same_file(const std::string& name, uint64_t bytes) {
    PartResult part;
    part.name = name;
    part.file = name + ".img";
    part.bytes = bytes;
    part.compared = bytes;
    return part;
}

inline PartResult same_part(const std::string& name, uint64_t sector, uint64_t sectors) {
    PartResult part = same_file(name, sectors * kSector);
    part.file.clear();
    part.offset = sector * kSector;
    return part;
}

/// Adds a run of bytes of which the first is 0x41 and should be 0x40. The part differs.
inline void add_run(PartResult& part, uint64_t offset, uint64_t length, uint64_t flips) {
    part.runs.push_back({offset, length, flips, 0x40, 0x41});
    part.runs_found++;
    part.differing += length;
    part.verdict = Verdict::kDiffers;
}

/// Two files of SLC NAND that are as they should be.
inline CheckResult slc_result() {
    CheckResult result;
    result.conversion = {"slc", 128, 2, 64, false, false, "development"};
    result.geometry = slc_geometry();
    result.firmware_path = "fw.img";
    result.firmware_bytes = 37890123;
    result.target_kind = "directory";
    result.target_path = "out";
    result.parts = {same_file("idblock", 135168), same_file("rootfs", 36765696)};
    result.opinion.units = 34944;
    return result;
}

/// The same with two pages of rootfs that differ, a file that is missing and one that is extra.
inline CheckResult slc_result_with_differences() {
    CheckResult result = slc_result();
    result.verdict = Verdict::kDiffers;
    PartResult& rootfs = result.parts[1];
    add_run(rootfs, 560 * 2112 + 11, 1, 1);
    add_run(rootfs, 561 * 2112 + kUnit + 100, 12, 31);
    rootfs.differing_pages = 2;
    PartResult userdata = same_file("userdata", 405504);
    userdata.verdict = Verdict::kMissing;
    userdata.compared = 0;
    userdata.missing = userdata.bytes;
    result.parts.push_back(userdata);
    result.missing = {"userdata.img"};
    result.extra = {"old.img"};
    return result;
}

/// A device with a boot block copy that differs in one sector, an ignored partition and a rest.
inline CheckResult device_result() {
    CheckResult result;
    result.conversion = {"emmc", 512, 2, 0, false, false, "development"};
    result.geometry = image_geometry();
    result.firmware_path = "fw.img";
    result.firmware_bytes = 1000;
    result.target_kind = "device";
    result.target_path = "/dev/mmcblk0";
    result.past_the_cache = true;
    result.verdict = Verdict::kDiffers;
    result.parts = {same_part("gpt", 0, 36), same_part("boot block, copy 1", 64, 1024),
                    same_part("boot block, copy 2", 1088, 1024), same_part("userdata", 178176, 2048)};
    add_run(result.parts[2], 1090 * kSector + 12, 4, 9);
    result.parts[2].differing_pages = 1;
    result.parts[2].note = "copy 1 is good";
    add_run(result.parts[3], 178180 * kSector, 5, 5);
    result.parts[3].verdict = Verdict::kIgnored;
    result.rest = {180224 * kSector, 60891136 * kSector, RestOfTarget::Content::kNotEmpty};
    return result;
}

/// An image with eight copies of the parameter side by side, and two boot blocks with a gap between them.
inline CheckResult image_with_copies() {
    CheckResult result = device_result();
    result.target_kind = "image";
    result.verdict = Verdict::kSame;
    result.rest = {};
    result.parts = {same_part("boot block, copy 1", 64, 8), same_part("boot block, copy 2", 1088, 8)};
    for (uint64_t copy = 1; copy <= 8; copy++)
        result.parts.push_back(
            same_part("parameter, copy " + std::to_string(copy), 8160 + copy * 32, copy == 8 ? 40 : 32));
    return result;
}
