#include "toolkit/ts/program_association.hpp"

#include <gtest/gtest.h>

#include "tests/support/psi_builder.hpp"

namespace
{

TEST(ProgramAssociation, IsReadEntryByEntry)
{
    const auto entries = read_program_association(
        build_pat({.programmes = {{.number = 0, .pid = 0x10}, {.number = 0x1234, .pid = 0x1FFE}}}));
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].program_number, 0);
    EXPECT_EQ(entries[0].pid, 0x10);
    EXPECT_EQ(entries[1].program_number, 0x1234);
    EXPECT_EQ(entries[1].pid, 0x1FFE);
}

TEST(ProgramAssociation, LeavesOutBytesThatAreNoEntry)
{
    EXPECT_TRUE(read_program_association(build_section({}, bytes_of("abc"))).empty());
    EXPECT_TRUE(read_program_association(build_section({}, {})).empty());
}

TEST(ProgramAssociation, IsWrittenForOneProgrammeOfMany)
{
    const byte_string many = build_pat({.section = {.table_id_extension = 0xBEEF,
                                                    .version_number = 19,
                                                    .section_number = 1,
                                                    .last_section_number = 2},
                                        .programmes = {{.number = 0, .pid = 0x10},
                                                       {.number = 1, .pid = 0x100},
                                                       {.number = 2, .pid = 0x200}}});
    EXPECT_EQ(write_program_association(many, {.program_number = 2, .pid = 0x200}),
              build_pat({.section = {.table_id_extension = 0xBEEF, .version_number = 19},
                         .programmes = {{.number = 2, .pid = 0x200}}}));
}

TEST(ProgramAssociation, NamesAnotherPidForOneProgrammeOfMany)
{
    pat_fields many{.section = {.version_number = 19},
                    .programmes = {{.number = 0, .pid = 0x10},
                                   {.number = 1, .pid = 0x100},
                                   {.number = 2, .pid = 0x200}}};
    byte_string section = build_pat(many);
    move_programme(section, {.program_number = 2, .pid = 0x1FFE});
    many.programmes[2].pid = 0x1FFE;
    EXPECT_EQ(section, build_pat(many));
}

} // namespace
