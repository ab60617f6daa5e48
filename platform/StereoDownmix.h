#pragma once
// Folding surround sound into stereo: the one rule both reading routes apply, so a 5.1 file
// sounds the same whichever route read it. Fronts go to their side as they are; centre and
// surrounds at -3 dB (the centre into both sides); LFE, height and unknown channels are
// left out. No gain is normalised away, so a front channel keeps its level.
// Header-only: each route maps its framework's channel names onto Speaker.

namespace zub {

enum class Speaker { FrontLeft, FrontRight, Centre, SurroundLeft, SurroundRight, Lfe, Other };

struct StereoGains {
    double left = 0;
    double right = 0;
};

inline constexpr double kMinus3dB = 0.70710678118654752;

constexpr StereoGains StereoGainsOf(Speaker s)
{
    switch (s) {
    case Speaker::FrontLeft: return {1, 0};
    case Speaker::FrontRight: return {0, 1};
    case Speaker::Centre: return {kMinus3dB, kMinus3dB};
    case Speaker::SurroundLeft: return {kMinus3dB, 0};
    case Speaker::SurroundRight: return {0, kMinus3dB};
    case Speaker::Lfe:
    case Speaker::Other: break;
    }
    return {};
}

// The speaker of channel `index` in a stream that names no positions: the usual order of
// 5.1 and 7.1 (front left, front right, centre, LFE, rear left, rear right, side left, side
// right); channels past eight are left out.
constexpr Speaker UnnamedSpeaker(int index)
{
    constexpr Speaker order[8] = {Speaker::FrontLeft,    Speaker::FrontRight,    Speaker::Centre,
                                  Speaker::Lfe,          Speaker::SurroundLeft,  Speaker::SurroundRight,
                                  Speaker::SurroundLeft, Speaker::SurroundRight};
    return index >= 0 && index < 8 ? order[index] : Speaker::Other;
}

}  // namespace zub
