// Builders of H.264 parameter sets for demultiplexer tests.
#pragma once

#include <stdint.h>

#include <string>

// An H.264 SPS with its NAL header, 320x240; vui: 0 none, 1 VUI without
// timing, 2 with timing (`units` per tick, `scale` ticks per second).
inline std::string h264_sps(int profile, int vui, uint32_t units = 0, uint32_t scale = 0)
{
    std::string bits; // one '0' or '1' per bit
    auto u = [&](int n, uint64_t v) {
        for (int i = n - 1; i >= 0; i--)
            bits += (char)('0' + ((v >> i) & 1));
    };
    auto ue = [&](uint32_t v) { // Exp-Golomb
        int n = 0;
        while ((v + 1) >> (n + 1))
            n++;
        u(n, 0), u(n + 1, v + 1);
    };
    u(8, profile), u(8, 0), u(8, 30), ue(0);
    if (profile == 100) {
        ue(1), ue(0), ue(0), u(1, 0);
        u(1, 1); // scaling matrix with one explicit list
        for (int i = 0; i < 8; i++) {
            u(1, i == 0);
            for (int j = 0; i == 0 && j < 16; j++)
                ue(j == 15 ? 0 : 1); // deltas of +1, then 0
        }
    }
    ue(0), ue(0), ue(4), ue(1), u(1, 0), ue(19), ue(14), u(1, 1), u(1, 1), u(1, 0);
    u(1, vui != 0);
    if (vui) {
        u(1, 1), u(8, 255), u(32, 0x00010001); // aspect ratio, extended SAR
        u(1, 0), u(1, 0), u(1, 0);
        u(1, vui == 2);
        if (vui == 2)
            u(32, units), u(32, scale), u(1, 1);
    }
    u(1, 1); // stop bit, then bytes with emulation prevention
    bits.resize((bits.size() + 7) / 8 * 8, '0');
    std::string out = "\x67";
    for (size_t i = 0, zeros = 0; i < bits.size(); i += 8) {
        int b = std::stoi(bits.substr(i, 8), nullptr, 2);
        if (zeros >= 2 && b <= 3)
            out += '\3', zeros = 0;
        zeros = b == 0 ? zeros + 1 : 0;
        out += (char)b;
    }
    return out;
}
