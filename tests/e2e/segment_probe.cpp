// Shows what probe_segment makes of stored pieces of a stream: the end-to-end tests compare it with a scan of
// their own. A line for each file:
//     TYPE plen=BYTES pcount=UNITS pat=INDEX pcr=INDEX/TICKS iframe=INDEX
// Indexes count from 1, 0 is not found. -r makes only the searches named: p(at), c (PCR), i(-frame).
//     segment_probe [-r pci] FILE...
#include "dstream.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char** argv)
{
    const char* requests = "pci";
    for (int opt = 0; (opt = getopt(argc, argv, "r:")) != -1;) {
        if (opt != 'r') return 2;
        requests = optarg;
    }
    for (int i = optind; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        if (!in) {
            fprintf(stderr, "%s: can't open %s\n", argv[0], argv[i]);
            return 1;
        }
        const std::vector<uint8_t> data(std::istreambuf_iterator<char>(in), {});
        sseg_ctx seg = {};
        seg.pat_idx = strchr(requests, 'p') != nullptr;
        seg.pcr_idx = strchr(requests, 'c') != nullptr;
        seg.iframe_idx = strchr(requests, 'i') != nullptr;
        size_t plen = 0;
        size_t pcount = 0;
        n32_tag type = {};
        type.num = probe_segment(data.data(), data.size(), 0, &plen, &pcount, &seg);
        printf("%.4s plen=%zu pcount=%zu pat=%u pcr=%u/%lu iframe=%u\n", type.sym, plen, pcount, seg.pat_idx,
               seg.pcr_idx, seg.pcr, seg.iframe_idx);
    }
    return 0;
}
