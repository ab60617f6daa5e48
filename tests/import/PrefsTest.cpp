#include <gtest/gtest.h>

#include "zubimport/ImportSettings.h"
#include "zubimport/Prefs.h"

using namespace zub;

namespace {

// Every numeric field gets its own value so a field mapped onto another's member shows up
// as a changed value after the round trip.
void Distinct(CConvertDlgPrefs& p)
{
    int v = 100;
    for (auto* f : {&p.nSetting1, &p.nSetting2, &p.nSetting3, &p.nSetting4, &p.nSetting5, &p.nSetting6,
                    &p.nSetting7, &p.nSetting8, &p.nSetting9, &p.nSetting10, &p.nSetting11, &p.nSetting12,
                    &p.nSetting13, &p.nSetting14, &p.nSetting15, &p.nSetting16})
        *f = v++;
    p.strSetting1 = "C:\\video\\";
    p.strSetting2 = "/audio/";
}

void ExpectSameSettings(const CConvertDlgPrefs& a, const CConvertDlgPrefs& b)
{
    EXPECT_EQ(a.strSetting1, b.strSetting1);
    EXPECT_EQ(a.strSetting2, b.strSetting2);
    const int* x[] = {&a.nSetting1, &a.nSetting2, &a.nSetting3, &a.nSetting4, &a.nSetting5, &a.nSetting6,
                      &a.nSetting7, &a.nSetting8, &a.nSetting9, &a.nSetting10, &a.nSetting11, &a.nSetting12,
                      &a.nSetting13, &a.nSetting14, &a.nSetting15, &a.nSetting16};
    const int* y[] = {&b.nSetting1, &b.nSetting2, &b.nSetting3, &b.nSetting4, &b.nSetting5, &b.nSetting6,
                      &b.nSetting7, &b.nSetting8, &b.nSetting9, &b.nSetting10, &b.nSetting11, &b.nSetting12,
                      &b.nSetting13, &b.nSetting14, &b.nSetting15, &b.nSetting16};
    for (int i = 0; i < 16; ++i) EXPECT_EQ(*x[i], *y[i]) << "nSetting" << i + 1;
}

}  // namespace

TEST(PrefsRecords, Defaults)
{
    CConvertDlgPrefs c;
    EXPECT_EQ(c.useZub, 1);
    EXPECT_EQ(c.nSetting7, 1);
    for (int v : {c.deviceName, c.existingHandle, c.mode24p, c.nSetting1, c.nSetting2, c.nSetting3, c.nSetting4,
                  c.nSetting5, c.nSetting6, c.nSetting8, c.nSetting9, c.nSetting10, c.nSetting11, c.nSetting12,
                  c.nSetting13, c.nSetting14, c.nSetting15, c.nSetting16})
        EXPECT_EQ(v, 0);
    EXPECT_TRUE(c.strSetting1.empty() && c.strSetting2.empty());

    CBatchImpPrefsInfo b;
    EXPECT_EQ(b.useZub, 1);
    EXPECT_EQ(b.nDlgParam1, 0);
    EXPECT_EQ(b.nDlgParam2, 0);
    EXPECT_EQ(b.nDlgParam3, 1);
    EXPECT_EQ(b.nListSetting, -1);
    EXPECT_EQ(b.nSetting4, -1);
    EXPECT_EQ(b.nSetting10, 5242880);
    EXPECT_EQ(b.nSetting7, 1);
    EXPECT_EQ(b.nSetting5 | b.nSetting6 | b.nSetting9 | b.nSetting8 | b.nSetting12, 0);

    CImgSeqPrefsInfo i;
    EXPECT_EQ(i.useZub, 1);
    EXPECT_EQ(i.nDlgParam3, 0);
    EXPECT_EQ(i.nSetting4, -1);
    EXPECT_EQ(i.nSetting10, 0x500000);
    EXPECT_EQ(i.nSetting7, 1);
}

TEST(PrefsRecords, CopiesAreIndependent)
{
    CConvertDlgPrefs a;
    Distinct(a);
    CConvertDlgPrefs b(a);
    CConvertDlgPrefs c;
    c = a;
    a.strSetting1[0] = 'X';
    a.nSetting9 = -5;
    EXPECT_EQ(b.strSetting1, "C:\\video\\");
    EXPECT_EQ(c.strSetting1, "C:\\video\\");
    EXPECT_EQ(b.nSetting9, 108);

    CBatchImpPrefsInfo ba;
    ba.strTitle = "Batch";
    ba.strSetting3 = "folder";
    CBatchImpPrefsInfo bb = ba;
    ba.strTitle += "!";
    ba.strSetting3.clear();
    EXPECT_EQ(bb.strTitle, "Batch");
    EXPECT_EQ(bb.strSetting3, "folder");

    CImgSeqPrefsInfo ia;
    ia.strSetting5 = "imgs";
    CImgSeqPrefsInfo ib;
    ib = ia;
    ia.strSetting5 = "other";
    EXPECT_EQ(ib.strSetting5, "imgs");
}

TEST(SettingsMapping, ConvertRecordRoundTripsEveryField)
{
    CConvertDlgPrefs in;
    Distinct(in);
    ImportSettings s;
    PushToSettings(in, s);
    CConvertDlgPrefs out;
    PullFromSettings(s, out);
    ExpectSameSettings(in, out);
    // The settings the other parts read by name.
    EXPECT_EQ(s.videoDir, "C:\\video\\");
    EXPECT_EQ(s.audioDir, "/audio/");
    EXPECT_EQ(s.defaultVideo, 100);
    EXPECT_EQ(s.defaultAudio, 101);
    EXPECT_EQ(s.makeDva, 102);
    EXPECT_EQ(s.createAlpha, 105);         // the key option
    EXPECT_EQ(s.showImagesOnOutput, 106);  // "Show Images on Output"
    EXPECT_EQ(s.videoAdaptive, 110);       // first option word of a frame import
    EXPECT_EQ(s.alphaAdaptive, 115);       // second option word
}

TEST(SettingsMapping, EveryFieldNamesItsMember)
{
    for (const char* f : {"nSetting1", "nSetting2", "nSetting3", "nSetting4", "nSetting5", "nSetting6", "nSetting7",
                          "nSetting8", "nSetting9", "nSetting10", "nSetting11", "nSetting12", "nSetting13",
                          "nSetting14", "nSetting15", "nSetting16", "strSetting1", "strSetting2"})
        EXPECT_NE(SettingsMemberFor("CConvertDlgPrefs", f), nullptr) << f;
    EXPECT_STREQ(SettingsMemberFor("CConvertDlgPrefs", "nSetting7"), "showImagesOnOutput");
    EXPECT_STREQ(SettingsMemberFor("CBatchImpPrefsInfo", "nSetting10"), "videoDataRate");
    EXPECT_STREQ(SettingsMemberFor("CImgSeqPrefsInfo", "nSetting10"), "videoDataRate");
    EXPECT_STREQ(SettingsMemberFor("CImgSeqPrefsInfo", "strSetting1"), "videoDir");
    // One field name, two meanings: each record's own use decides.
    EXPECT_STREQ(SettingsMemberFor("CConvertDlgPrefs", "nSetting4"), "audioRateIndex");
    EXPECT_STREQ(SettingsMemberFor("CBatchImpPrefsInfo", "nSetting4"), "fitWord");
    EXPECT_EQ(SettingsMemberFor("CBatchImpPrefsInfo", "strTitle"), nullptr);
    EXPECT_EQ(SettingsMemberFor("CBatchImpPrefsInfo", "deviceName"), nullptr);
}

TEST(SettingsMapping, BatchAppliesOnlyGivenValues)
{
    ImportSettings s;
    s.batchFilterIndex = 3;
    s.videoDir = "/v/";
    s.audioDir = "/a/";
    s.batchFolder = "/b/";
    s.fitWord = 0x20105;
    CBatchImpPrefsInfo p;  // nListSetting -1, nSetting4 -1, empty strings
    p.nSetting5 = 1;
    p.nSetting10 = 3145728;
    PushToSettings(p, s);
    EXPECT_EQ(s.batchFilterIndex, 3);
    EXPECT_EQ(s.videoDir, "/v/");
    EXPECT_EQ(s.batchFolder, "/b/");
    EXPECT_EQ(s.fitWord, 0x20105);
    EXPECT_EQ(s.videoUncompressed, 1);
    EXPECT_EQ(s.videoDataRate, 3145728);
    // After the dialog the record holds the settings' current values.
    CBatchImpPrefsInfo back;
    PullFromSettings(s, back);
    EXPECT_EQ(back.nListSetting, 3);
    EXPECT_EQ(back.strSetting1, "/v/");
    EXPECT_EQ(back.strSetting2, "/a/");
    EXPECT_EQ(back.strSetting3, "/b/");
    EXPECT_EQ(back.nSetting4, 0x20105);

    CBatchImpPrefsInfo given;
    given.nListSetting = 0;
    given.nSetting4 = 0;
    given.strSetting4 = "clip|1,0,0";
    PushToSettings(given, s);
    EXPECT_EQ(s.batchFilterIndex, 0);
    EXPECT_EQ(s.fitWord, 0);
    EXPECT_EQ(s.batchProps, "clip|1,0,0");
}

TEST(SettingsMapping, BatchAndImageRecordsRoundTrip)
{
    CBatchImpPrefsInfo b;
    b.nListSetting = 2;
    b.strSetting1 = "1";
    b.strSetting2 = "2";
    b.strSetting3 = "3";
    b.strSetting4 = "4";
    int v = 40;
    for (auto* f : {&b.nSetting4, &b.nSetting5, &b.nSetting6, &b.nSetting9, &b.nSetting10, &b.nSetting8,
                    &b.nSetting12, &b.nSetting7})
        *f = v++;
    ImportSettings s;
    PushToSettings(b, s);
    CBatchImpPrefsInfo bo;
    PullFromSettings(s, bo);
    EXPECT_EQ(bo.nListSetting, 2);
    EXPECT_EQ(bo.strSetting1 + bo.strSetting2 + bo.strSetting3 + bo.strSetting4, "1234");
    v = 40;
    for (int got : {bo.nSetting4, bo.nSetting5, bo.nSetting6, bo.nSetting9, bo.nSetting10, bo.nSetting8,
                    bo.nSetting12, bo.nSetting7})
        EXPECT_EQ(got, v++);

    CImgSeqPrefsInfo i;
    i.strSetting5 = "/imgs/";
    i.strSetting1 = "/v/";
    v = 70;
    for (auto* f : {&i.nSetting4, &i.nSetting5, &i.nSetting6, &i.nSetting9, &i.nSetting10, &i.nSetting8,
                    &i.nSetting12, &i.nSetting7})
        *f = v++;
    ImportSettings s2;
    PushToSettings(i, s2);
    CImgSeqPrefsInfo io;
    PullFromSettings(s2, io);
    EXPECT_EQ(io.strSetting5, "/imgs/");
    EXPECT_EQ(io.strSetting1, "/v/");
    v = 70;
    for (int got : {io.nSetting4, io.nSetting5, io.nSetting6, io.nSetting9, io.nSetting10, io.nSetting8,
                    io.nSetting12, io.nSetting7})
        EXPECT_EQ(got, v++);
    // The image record and the conversion record share the video settings' meaning.
    CConvertDlgPrefs c;
    PullFromSettings(s2, c);
    EXPECT_EQ(c.nSetting10, i.nSetting10);
    EXPECT_EQ(c.strSetting1, "/v/");
}
