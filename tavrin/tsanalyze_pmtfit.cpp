// Makes a foreign PMT section safe for the library's accessors and printers.
//
// They trust every length field, count in 8 bits, and some of their loops over the items of a descriptor never end
// when an item's size wraps to 0. So a section is walked once, here, before they see it. What can't hold is refused:
//
//     section     0  table id | 1, 2  0fff: length of what follows | 8, 9  1fff: PCR PID
//                 10, 11  0fff: length of the program's descriptors, from 12 on | then the ES entries, then 4 bytes CRC
//     ES entry    0  type | 1, 2  1fff: PID | 3, 4  0fff: length of its descriptors, from 5 on
//     descriptor  0  tag | 1  length of what follows
//
// A section that goes on in a further packet is read as far as its own packet goes: an entry or descriptor that is cut
// there falls away, and the lengths around it are brought down to what is left.
#include "tavrin/tsanalyze_int.h"

#include <array>

namespace
{

constexpr size_t SEC_LEN_FIELD = 1; // where the section's length field lies
constexpr size_t SEC_HEAD = 3;      // bytes that it does not count
constexpr size_t CRC_BYTES = 4;     // bytes at the end that it counts
constexpr size_t PROG_LEN_FIELD = 10;
constexpr size_t PMT_HEAD = 12;
constexpr size_t ES_LEN_FIELD = 3;
constexpr size_t ES_HEAD = 5;
constexpr size_t DESC_HEAD = 2;
constexpr size_t MIN_LENGTH = 13;   // the head and the CRC
constexpr size_t MAX_LENGTH = 1021; // as long as a PMT may be
static_assert(MIN_LENGTH == PMT_HEAD - SEC_HEAD + CRC_BYTES);

// Descriptors whose items the printer walks with an item size of 8 bits: `base` plus the byte at `len_at`.
struct item_list {
    uint8_t tag;
    uint8_t skip;   // bytes between the descriptor's head and the first item
    uint8_t base;   // bytes of an item beside its text or list
    uint8_t len_at; // place in an item of that one's length
};

constexpr uint8_t TAG_MOSAIC = 0x51;
constexpr uint8_t TAG_SERVICE_NAMES = 0x5d;
constexpr std::array<item_list, 8> ITEM_LISTS = {{
    {0x45, 0, 2, 1},              // VBI data
    {TAG_MOSAIC, 1, 4, 2},        // and a link, by the byte behind the list
    {0x5b, 0, 4, 3},              // network names
    {0x5c, 0, 4, 3},              // bouquet names
    {TAG_SERVICE_NAMES, 0, 5, 3}, // and a second text, its length behind the first
    {0x5e, 1, 4, 3},              // component texts
    {0x6c, 0, 10, 9},             // cells
    {0x6d, 0, 7, 6},              // cell frequencies
}};

// Bytes of a mosaic's link, by its kind.
constexpr std::array<uint8_t, 5> MOSAIC_LINK_BYTES = {0, 2, 6, 6, 8};

size_t field12(const uint8_t* p)
{
    return size_t(p[0] & 0x0f) << 8 | p[1];
}

void set_field12(uint8_t* p, size_t value)
{
    p[0] = uint8_t((p[0] & 0xf0) | (value >> 8 & 0x0f));
    p[1] = uint8_t(value & 0xff);
}

uint8_t item_size(const item_list& list, const uint8_t* item)
{
    const size_t len = item[list.len_at];
    size_t size = list.base + len;
    if (list.tag == TAG_SERVICE_NAMES) size += item[list.base - 1U + len];
    if (list.tag == TAG_MOSAIC) {
        const uint8_t kind = item[list.base - 1U + len];
        if (kind < MOSAIC_LINK_BYTES.size()) size += MOSAIC_LINK_BYTES[kind];
    }
    return uint8_t(size); // wraps as the printer's own does
}

// True if the printer's walk over the items of a descriptor comes to an end.
bool items_advance(const uint8_t* desc)
{
    for (const item_list& list : ITEM_LISTS) {
        if (list.tag != desc[0]) continue;
        const uint8_t* item = desc + DESC_HEAD + list.skip;
        for (int left = desc[1]; left > list.skip;) {
            const uint8_t size = item_size(list, item);
            if (size == 0) return false;
            item += size;
            left -= size;
        }
    }
    return true;
}

// Walks the descriptors in [pos, end). With `cut` the last one may run past the end: `end` is brought down to its
// start. Null, or why they can't hold.
const char* fit_descriptors(const uint8_t* pld, size_t pos, size_t& end, bool cut)
{
    while (pos < end) {
        const bool whole = end - pos >= DESC_HEAD && end - pos >= DESC_HEAD + pld[pos + 1];
        if (!whole && cut) {
            end = pos;
            return nullptr;
        }
        if (!whole) return "a descriptor runs past its loop";
        if (!items_advance(pld + pos)) return "a descriptor's items do not advance";
        pos += DESC_HEAD + pld[pos + 1];
    }
    return nullptr;
}

// Walks the descriptor loop behind the length field at `field`, which ends by `limit`. With `cut` a loop that runs past
// the limit is shortened, its length field with it. Null, and *next behind the loop; or why it can't hold.
const char* fit_loop(uint8_t* pld, size_t field, size_t limit, bool cut, size_t* next)
{
    const size_t begin = field + 2;
    size_t end = begin + field12(pld + field);
    const bool past_limit = end > limit;
    if (past_limit && !cut) return "a descriptor loop runs past the section";
    if (past_limit) end = limit;
    if (const char* why = fit_descriptors(pld, begin, end, past_limit); why != nullptr) return why;
    set_field12(pld + field, end - begin);
    *next = end;
    return nullptr;
}

} // namespace

namespace tsan_int
{

const char* pmt_fit(uint8_t* pld, size_t avail)
{
    if (avail < SEC_HEAD) return "its head is not in the packet";
    const size_t length = field12(pld + SEC_LEN_FIELD);
    if (length < MIN_LENGTH) return "it is too short";
    if (length > MAX_LENGTH) return "it is too long";
    if (avail < PMT_HEAD) return "its head is not in the packet";
    size_t end = SEC_HEAD + length - CRC_BYTES;
    const bool cut = end > avail;
    if (cut) end = avail;

    // Behind a loop that was shortened nothing is left.
    size_t pos = PMT_HEAD;
    bool more = PMT_HEAD + field12(pld + PROG_LEN_FIELD) < end;
    if (const char* why = fit_loop(pld, PROG_LEN_FIELD, end, cut, &pos); why != nullptr) return why;
    while (more && pos < end) {
        if (end - pos < ES_HEAD) {
            if (!cut) return "an entry runs past the section";
            break;
        }
        more = pos + ES_HEAD + field12(pld + pos + ES_LEN_FIELD) < end;
        if (const char* why = fit_loop(pld, pos + ES_LEN_FIELD, end, cut, &pos); why != nullptr) return why;
    }
    if (cut) set_field12(pld + SEC_LEN_FIELD, pos + CRC_BYTES - SEC_HEAD);
    return nullptr;
}

} // namespace tsan_int
