#include "tools/captions/caption_services.hpp"

#include <gtest/gtest.h>

#include "tests/support/psi_builder.hpp"

namespace
{

using services = std::vector<caption_service>;

TEST(CaptionServices, Names)
{
    struct name_case {
        std::string_view text;
        caption_kind kind;
        int number;
    };
    const name_case cases[] = {
        {"cc1", caption_kind::cea608, 1},
        {"cc4", caption_kind::cea608, 4},
        {"708:1", caption_kind::cea708, 1},
        {"708:63", caption_kind::cea708, 63},
        {"teletext:100", caption_kind::teletext, 0x100},
        {"teletext:8ff", caption_kind::teletext, 0x8FF},
    };
    for (const name_case& c : cases) {
        SCOPED_TRACE(c.text);
        caption_service service;
        ASSERT_TRUE(parse_caption_service(c.text, service));
        EXPECT_EQ(service.kind, c.kind);
        EXPECT_EQ(service.number, c.number);
        EXPECT_EQ(name_of(service), c.text);
    }
    for (const std::string_view text :
         {"", "cc", "cc0", "cc5", "cc1 ", "CC1", "708:0", "708:64", "708:", "teletext:99",
          "teletext:900", "teletext:1000", "teletext:g00", "cc1.vtt", "./cc1", "|cc1"}) {
        caption_service service;
        EXPECT_FALSE(parse_caption_service(text, service)) << text;
    }
}

services announced(const byte_string& descriptors)
{
    services found;
    append_announced_services(descriptors, found);
    return found;
}

// Page 100 is the first page, 888 subtitles, 889 subtitles for the hard of hearing, 150 a schedule.
const byte_string teletext_data = {'d', 'e', 'u', 0x01 << 3 | 1, 0x00, //
                                   'd', 'e', 'u', 0x02 << 3 | 0, 0x88, //
                                   'F', 'R', 'A', 0x05 << 3 | 0, 0x89, //
                                   'd', 'e', 'u', 0x04 << 3 | 1, 0x50};

TEST(CaptionServices, SubtitlePagesOfTheTeletextDescriptor)
{
    EXPECT_EQ(
        announced(build_descriptor(0x56, teletext_data)),
        (services{{caption_kind::teletext, 0x888, "deu"}, {caption_kind::teletext, 0x889, "fra"}}));
}

TEST(CaptionServices, ServicesOfTheCaptionServiceDescriptor)
{
    const byte_string data = {0xC0 | 4,                             // number_of_services
                              'e',      'n', 'g', 0x7E, 0x3F, 0xFF, // line 21, first field
                              's',      'p', 'a', 0x7F, 0x3F, 0xFF, // line 21, second field
                              'e',      'n', 'g', 0xC1, 0x3F, 0xFF, // service 1
                              0,        0,   0,   0xC6, 0x3F, 0xFF};
    EXPECT_EQ(announced(build_descriptor(0x86, data)),
              (services{{caption_kind::cea608, 1, "eng"},
                        {caption_kind::cea608, 3, "spa"},
                        {caption_kind::cea708, 1, "eng"},
                        {caption_kind::cea708, 6, "und"}}));
}

TEST(CaptionServices, DescriptorsThatAreCutOff)
{
    const byte_string whole =
        concat({build_descriptor(0x0A, {'e', 'n', 'g', 0}), build_descriptor(0x56, teletext_data)});
    EXPECT_TRUE(has_teletext_descriptor(whole));
    EXPECT_EQ(announced(whole).size(), 2U);
    for (size_t size = 0; size < whole.size(); ++size) {
        const byte_string cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_TRUE(announced(cut).empty()) << size;
        EXPECT_FALSE(has_teletext_descriptor(cut)) << size;
    }
    // Fewer services than their number says.
    EXPECT_TRUE(announced(build_descriptor(0x86, {0xC3, 'e', 'n', 'g', 0xC1, 0x3F})).empty());
}

} // namespace
