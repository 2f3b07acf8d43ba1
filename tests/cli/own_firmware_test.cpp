// A conversion whose output file would be the firmware itself: that file cannot be created.

#include "cli/workbench.h"

namespace {

using namespace cli_test;
using namespace test_support;

constexpr const char* busy = ",err=16";

// The firmware lies in the output directory under the name of an output file. The output directory is written
// in several ways that lead to it.
class OwnFirmware : public testing::Test {
protected:
    OwnFirmware() { fs::create_directory_symlink("out", bench.directory() / "link"); }

    // Makes out/NAME the firmware.
    void put_firmware(const std::string& name) {
        bench.name_firmware("out/" + name);
        bench.pack(packed);
    }

    // The firmware as itself, and out/NAME as a link to it.
    void link_firmware(const std::string& name, bool hard) {
        bench.pack(packed);
        if (hard) {
            fs::create_hard_link(bench.firmware(), bench.out(name));
        } else {
            fs::create_symlink("../fw.img", bench.out(name));
        }
    }

    void expect_refusal(const Conversion& conversion, const fs::path& firmware, const fs::path& out,
                        int status, const Transcript& rest) {
        expect_run(run(conversion.arguments(firmware, out)), status,
                   conversion.echo(firmware, out).then(rest));
        expect_same_bytes(read_file(bench.firmware()), packed.build(), "firmware");
    }

    Firmware packed = sample_firmware();
    Workbench bench{};
};

TEST_F(OwnFirmware, IsNotOverwrittenThroughTheSamePath) {
    put_firmware("out_image.img");
    const fs::path out = bench.out_dir();
    expect_refusal({}, out / "out_image.img", out, init_failed,
                   Transcript().line("failed to create " + out.string() + "/out_image.img" + busy));
    expect_refusal({.type = "spinor"}, out / "out_image.img", out, init_failed,
                   Transcript().line("failed to create " + out.string() + "/out_image.img" + busy));
}

TEST_F(OwnFirmware, IsNotOverwrittenThroughAnotherSpellingOfThePath) {
    put_firmware("out_image.img");
    const fs::path out = bench.out_dir();
    for (const std::string& spelling :
         {out.string() + "/.", out.string() + "/../out", (bench.directory() / "link").string(),
          bench.directory().string() + "/./out"}) {
        SCOPED_TRACE(spelling);
        expect_refusal({}, out / "out_image.img", spelling, init_failed,
                       Transcript().line("failed to create " + spelling + "/out_image.img" + busy));
        expect_refusal({}, spelling + "/out_image.img", out, init_failed,
                       Transcript().line("failed to create " + out.string() + "/out_image.img" + busy));
    }
}

TEST_F(OwnFirmware, IsNotOverwrittenThroughARelativePath) {
    put_firmware("out_image.img");
    const Conversion emmc;
    for (const std::string firmware : {"out_image.img", "./out_image.img", "../out/out_image.img"}) {
        SCOPED_TRACE(firmware);
        const auto result = run(emmc.arguments(firmware, "."), {.working_directory = bench.out_dir()});
        expect_run(result, init_failed,
                   emmc.echo(firmware, ".").line(std::string("failed to create ./out_image.img") + busy));
        expect_same_bytes(read_file(bench.firmware()), packed.build(), "firmware");
    }
}

TEST_F(OwnFirmware, IsNotOverwrittenThroughALink) {
    for (const bool hard : {false, true}) {
        SCOPED_TRACE(hard);
        link_firmware("out_image.img", hard);
        expect_refusal({}, bench.firmware(), bench.out_dir(), init_failed,
                       Transcript().line("failed to create " + bench.out("out_image.img").string() + busy));
        fs::remove(bench.out("out_image.img"));
    }
}

TEST_F(OwnFirmware, IsNotOverwrittenWhenItIsItselfReachedThroughALink) {
    put_firmware("out_image.img");
    const fs::path link = bench.directory() / "fw.img";
    fs::create_symlink("out/out_image.img", link);
    expect_refusal({}, link, bench.out_dir(), init_failed,
                   Transcript().line("failed to create " + bench.out("out_image.img").string() + busy));
}

TEST_F(OwnFirmware, IsNotOverwrittenByTheBootBlockFile) {
    for (const bool hard : {false, true}) {
        for (const std::string type : {"spinand", "slc"}) {
            SCOPED_TRACE(type);
            link_firmware("idblock.img", hard);
            Transcript rest;
            rest.line("writing idblock...")
                .line("failed to create " + bench.out("idblock.img").string() + busy)
                .error("failed to write idblock,ret=-3")
                .failure();
            expect_refusal({.type = type, .spare_bytes = "64"}, bench.firmware(), bench.out_dir(),
                           creation_failed, rest);
            fs::remove(bench.out("idblock.img"));
        }
    }
}

TEST_F(OwnFirmware, IsNotOverwrittenByAPartitionFile) {
    for (const std::string type : {"spinand", "slc"}) {
        SCOPED_TRACE(type);
        put_firmware("boot.img");
        Transcript rest;
        rest.start_of_nand_run(bench.out_dir())
            .line("failed to create " + bench.out("boot.img").string() + busy)
            .error("failed to prepare boot")
            .failure();
        expect_refusal({.type = type, .spare_bytes = "64"}, bench.firmware(), bench.out_dir(),
                       creation_failed, rest);
    }
}

TEST_F(OwnFirmware, IsNotOverwrittenByTheTemporaryFile) {
    SparseImage sparse;
    sparse.chunks = {SparseChunk::raw(patterned(4096, 6))};
    packed.item("boot").data = sparse.build();
    for (const bool hard : {false, true}) {
        SCOPED_TRACE(hard);
        link_firmware("unsparse_tmp.bin", hard);
        Transcript rest;
        rest.start_of_raw_run()
            .line("preparing boot at 0x00002100")
            .line("writing boot...")
            .line("failed to create " + bench.out("unsparse_tmp.bin").string() + busy)
            .error("failed to write boot,ret=-3")
            .failure();
        expect_refusal({}, bench.firmware(), bench.out_dir(), creation_failed, rest);
        fs::remove(bench.out("unsparse_tmp.bin"));
    }
}

}  // namespace
