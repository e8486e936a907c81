// Builders of H.264 parameter sets for demultiplexer tests.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

// Bit writer for parameter sets; bytes() adds the stop bit and escapes.
struct Bits {
    std::vector<int> bits;
    void u(int n, uint64_t v)
    {
        for (int i = n - 1; i >= 0; i--)
            bits.push_back((v >> i) & 1);
    }
    void ue(uint32_t v)
    {
        int n = 0;
        while ((v + 1) >> (n + 1))
            n++;
        u(n, 0);
        u(n + 1, v + 1);
    }
    std::string bytes(uint8_t header)
    {
        u(1, 1);
        while (bits.size() % 8)
            bits.push_back(0);
        std::string out(1, (char)header);
        int zeros = 0;
        for (size_t i = 0; i < bits.size(); i += 8) {
            int b = 0;
            for (int k = 0; k < 8; k++)
                b = b << 1 | bits[i + k];
            if (zeros >= 2 && b <= 3) {
                out += '\3';
                zeros = 0;
            }
            zeros = b == 0 ? zeros + 1 : 0;
            out += (char)b;
        }
        return out;
    }
};

// An H.264 SPS, 320x240; vui: 0 none, 1 VUI without timing, 2 with timing.
inline std::string h264_sps(int profile, int vui, uint32_t units = 0, uint32_t scale = 0)
{
    Bits b;
    b.u(8, profile), b.u(8, 0), b.u(8, 30), b.ue(0);
    if (profile == 100) {
        b.ue(1), b.ue(0), b.ue(0), b.u(1, 0);
        b.u(1, 1); // scaling matrix with one explicit list
        for (int i = 0; i < 8; i++) {
            b.u(1, i == 0);
            for (int j = 0; i == 0 && j < 16; j++)
                b.ue(j == 15 ? 0 : 1); // deltas of +1, then 0
        }
    }
    b.ue(0), b.ue(0), b.ue(4), b.ue(1), b.u(1, 0), b.ue(19), b.ue(14), b.u(1, 1), b.u(1, 1), b.u(1, 0);
    b.u(1, vui != 0);
    if (vui) {
        b.u(1, 1), b.u(8, 255), b.u(32, 0x00010001); // aspect ratio, extended SAR
        b.u(1, 0), b.u(1, 0), b.u(1, 0);
        b.u(1, vui == 2);
        if (vui == 2)
            b.u(32, units), b.u(32, scale), b.u(1, 1);
    }
    return b.bytes(0x67);
}

