#include "tests/support/expect_run.hpp"

#include <algorithm>
#include <sstream>

#include "tests/support/ts_builder.hpp"

namespace
{

bool is_text(const byte_string& bytes)
{
    return std::ranges::all_of(bytes, [](uint8_t c) { return c == '\n' || (c >= 32 && c < 127); });
}

std::string quoted(std::string_view text)
{
    std::ostringstream out;
    out << "---\n" << text << "---\n";
    return out.str();
}

std::string describe(const byte_string& bytes)
{
    if (is_text(bytes))
        return quoted({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    return std::to_string(bytes.size()) + " bytes (" + std::to_string(bytes.size() / packet_bytes) +
           " packets)\n";
}

void compare_file(std::ostream& out, const std::string& name, const byte_string& got,
                  const byte_string& want)
{
    if (got == want)
        return;
    out << name << " differs, got " << describe(got) << "want " << describe(want);
    const auto where = std::ranges::mismatch(got, want).in1 - got.begin();
    out << "first difference at byte " << where << ", packet "
        << where / static_cast<std::ptrdiff_t>(packet_bytes) << "\n";
}

void compare_files(std::ostream& out, const file_map& got, const file_map& want)
{
    for (const auto& [name, content] : want) {
        if (const auto found = got.find(name); found == got.end())
            out << name << " is missing\n";
        else
            compare_file(out, name, found->second, content);
    }
    for (const auto& [name, content] : got)
        if (!want.contains(name))
            out << name << " is there but not expected, " << describe(content);
}

void compare_text(std::ostream& out, std::string_view name, const std::string& got,
                  const std::string& want)
{
    if (got != want)
        out << name << " differs, got\n" << quoted(got) << "want\n" << quoted(want);
}

testing::AssertionResult as_result(const std::ostringstream& differences)
{
    if (differences.view().empty())
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\n" << differences.str();
}

} // namespace

testing::AssertionResult same_run(const run_result& got, const expected_run& want)
{
    std::ostringstream out;
    compare_text(out, "ending", got.ending + "\n", want.ending + "\n");
    compare_text(out, "standard output", got.standard_output, "");
    compare_text(out, "standard error", got.standard_error, want.standard_error);
    compare_files(out, got.files, want.files);
    return as_result(out);
}

testing::AssertionResult same_files(const file_map& got, const file_map& want)
{
    std::ostringstream out;
    compare_files(out, got, want);
    return as_result(out);
}
