// The conversion dialog's audio members: thin over AudioConverter, with the target format
// from the module's settings and the messages through the module's prompter.
#include "convert/audio/AudioState.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

namespace zub {

int CConvertDlg::ConvertAudioFile(const char* source, const char* target)
{
    if (!audio_) audio_ = std::make_unique<AudioState>();
    return audio_->converter.Convert(source, target, audio::TargetFromSettings(CurrentSettings()), Prompter());
}

int CConvertDlg::GetAudioDetails(const std::string& file, long& rate, int& bits, int& stereo)
{
    return audio::AudioConverter::ReadFormat(file, rate, bits, stereo);
}

unsigned long CConvertDlg::ConvertStereoWaveData(short* in, unsigned long outBytes, int bits, int stereo)
{
    if (!audio_) audio_ = std::make_unique<AudioState>();
    return audio_->converter.ConvertStereo(in, outBytes, bits, stereo);
}

unsigned long CConvertDlg::ConvertMonoWaveData(short* in, unsigned long outBytes, int bits, int stereo)
{
    if (!audio_) audio_ = std::make_unique<AudioState>();
    return audio_->converter.ConvertMono(in, outBytes, bits, stereo);
}

int CConvertDlg::ReadSamplesFromFile(long count, unsigned char* buffer, unsigned long offset)
{
    if (!audio_) audio_ = std::make_unique<AudioState>();
    return audio_->converter.ReadSamples(count, buffer, offset);
}

}  // namespace zub
