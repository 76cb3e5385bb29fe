#include "v2/hls/hls_output.hpp"

#include <tuple>

#include <fcntl.h>
#include <unistd.h>

#include "v2/base/assertion.hpp"
#include "v2/base/text.hpp"
#include "v2/demux/fragment_tables.hpp"

namespace
{

constexpr mode_t fragment_mode = 0644;

} // namespace

HLSoutput::~HLSoutput()
{
    if (frag_fd >= 0) {
        rewrite_playlist();
        close_file();
    }
}

bool HLSoutput::open_fragment(PIDmap& pm)
{
    if (frag_fd >= 0)
        return true;
    return open_file() && write_fragment_tables(*this, pm);
}

bool HLSoutput::write(const unsigned char* data, size_t len, PIDmap& pm)
{
    if (frag_fd < 0) {
        if (!open_fragment(pm))
            return false;
        ASSERT_INVARIANT(frag_fd >= 0, __PRETTY_FUNCTION__);
    }
    return append(data, len);
}

bool HLSoutput::write_text(const std::string& text)
{
    if (frag_fd < 0 && !open_file())
        return false;
    return append(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

void HLSoutput::retire_fragment()
{
    if (frag_duration > 0.0) {
        // An output that was never opened gains an entry without a name, so that the numbers of
        // all renditions stay in step.
        m3u8.append_entry({.name = frag_path,
                           .sequence = static_cast<uint64_t>(cur_seq),
                           .duration = frag_duration});
        cur_seq++;
        frag_duration = -1.0;
    }
    if (frag_fd >= 0)
        close_file();
    frag_path.clear();

    m3u8.mark_entries();
    m3u8.delete_old_fragments();
    rewrite_playlist();
}

void HLSoutput::rewrite_playlist()
{
    m3u8.bandwidth = bandwidth;
    m3u8.height = height;
    m3u8.width = width;
    m3u8.master = master;
    m3u8.base_url = base_url;
    m3u8.carries_ts = carries_ts;
    m3u8.is_sap = is_sap;
    m3u8.audio_only = audio_only;
    std::ignore = m3u8.write_m3u8(); // a playlist that cannot be replaced stays as it is
}

bool HLSoutput::open_file()
{
    if (base_name.empty())
        return false;

    const int64_t number = next_seq++; // consumed even if the open fails
    cur_seq = number;
    opened_seq = number;

    std::string name = format_text("%s.%08lld.ts%s", base_name.c_str(),
                                   static_cast<long long>(number), suffix.c_str());
    frag_fd = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, fragment_mode);
    if (frag_fd < 0)
        return false;
    frag_path = std::move(name);
    frag_bytes = 0;
    return true;
}

bool HLSoutput::append(const unsigned char* data, size_t len)
{
    if (::write(frag_fd, data, len) != static_cast<ssize_t>(len)) {
        close_file();
        frag_path.clear();
        rewrite_playlist();
        return false;
    }
    frag_bytes += len;
    return true;
}

void HLSoutput::close_file()
{
    std::ignore = close(frag_fd); // all data has been handed over; there is nobody to tell
    frag_fd = -1;
}
