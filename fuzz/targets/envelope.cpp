// Fuzz target: the payload envelope's readers, which every enciphered file line and configuration
// token passes through: fdecode (Base64, AES-256-CBC, padding strip), AES_Decode and the two Base64
// decoders beneath it, and the inflater used for zipped payloads. The strict decoder must not claim
// more bytes than the buffer it was promised to fit, and AES_Decode either deciphers (0) or throws.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Util.h"
#include "Zip.h"
#include "fuzz_support.h"

VELTO_FUZZ_TARGET {
    const std::string input(reinterpret_cast<const char*>(data), size);
    try {
        Velto::Util::fdecode(input);
    } catch (...) {
        // Partial cipher blocks are refused by an exception, which every caller catches.
    }

    // AES_Decode and the strict decoder read up to the first NUL and write at most 3 bytes per
    // started group of four, plus the terminator: size the buffer exactly so that ASan sees any
    // write past it.
    const size_t text_len = strlen(input.c_str());
    const size_t capacity = (text_len + 3) / 4 * 3;
    std::vector<unsigned char> out(capacity + 1);
    const int decoded = Velto::base64_decode(input.c_str(), out.data());
    if (decoded < 0 || static_cast<size_t>(decoded) > capacity) abort();
    try {
        if (Velto::AES_Decode(input.c_str(), out.data()) != 0) abort();
    } catch (...) {
        // Zero or partial cipher blocks are refused by an exception.
    }

    Velto::base64_decode(input);
    Velto::unZip(data, static_cast<int>(size));
    return 0;
}
