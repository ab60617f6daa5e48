#pragma once
// The conversion dialog's audio state, complete, for the two places that build and end it.
#include "convert/audio/AudioConverter.h"
#include "zubimport/ConvertDlg.h"

namespace zub {

// The audio conversion's open files, buffers, ratio and reader live in the converter.
struct CConvertDlg::AudioState {
    audio::AudioConverter converter;
};

}  // namespace zub
