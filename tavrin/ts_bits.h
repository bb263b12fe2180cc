// biTStream's accessors and printers, in one place. They are plain inline C that trusts every length field: what they
// are given must be a private, zero-padded copy (psi_private_copy), never the packet itself.
#ifndef TAVRIN_TS_BITS_H
#define TAVRIN_TS_BITS_H

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wunused-variable"
#pragma GCC diagnostic ignored "-Wformat"
#include <bitstream/dvb/si.h>
#include <bitstream/dvb/si_print.h>
#include <bitstream/mpeg/psi.h>
#include <bitstream/mpeg/psi/pat_print.h>
#include <bitstream/mpeg/psi/pmt_print.h>
#include <bitstream/mpeg/ts.h>
#pragma GCC diagnostic pop

#endif // TAVRIN_TS_BITS_H
