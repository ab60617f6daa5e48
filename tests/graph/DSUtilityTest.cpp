// The graph utilities on real GStreamer elements and pipelines.
#include <gtest/gtest.h>

#include <gst/gst.h>

#include <cstdio>
#include <string>

#include "graph/GstSupport.h"
#include "zubimport/DSUtility.h"

using zub::CDSUtility;
using zub::gst::Ref;

namespace {

// An element that declares no properties of its own, to hang hand-made pads on.
struct ZubBare {
    GstElement parent;
};
struct ZubBareClass {
    GstElementClass parent_class;
};
G_DEFINE_TYPE(ZubBare, zub_bare, GST_TYPE_ELEMENT)
void zub_bare_class_init(ZubBareClass*) {}
void zub_bare_init(ZubBare*) {}

class GraphUtility : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(zub::gst::EnsureInitialised(nullptr)); }
};

Ref<GstElement> Make(const char* factory)
{
    GstElement* e = gst_element_factory_make(factory, nullptr);
    if (e) gst_object_ref_sink(e);
    return Ref<GstElement>(e);
}

Ref<GstElement> Bare()
{
    GstElement* e = GST_ELEMENT(g_object_new(zub_bare_get_type(), nullptr));
    gst_object_ref_sink(e);
    return Ref<GstElement>(e);
}

std::string PadName(GstPad* pad) { return pad ? GST_PAD_NAME(pad) : "(none)"; }

// A running pipeline described in gst-launch syntax, prerolled, for reading negotiated caps.
struct Prerolled {
    explicit Prerolled(const char* description)
    {
        GError* raw = nullptr;
        pipeline.reset(gst_parse_launch(description, &raw));
        zub::gst::ErrorPtr err(raw);
        if (pipeline) {
            gst_element_set_state(pipeline.get(), GST_STATE_PAUSED);
            gst_element_get_state(pipeline.get(), nullptr, nullptr, 10 * GST_SECOND);
        }
    }
    GstPad* SinkPad(const char* element)
    {
        Ref<GstElement> e(gst_bin_get_by_name(GST_BIN(pipeline.get()), element));
        return e ? gst_element_get_static_pad(e.get(), "sink") : nullptr;
    }
    zub::gst::PipelinePtr pipeline;
};

TEST_F(GraphUtility, FirstPinAndPinsStopAtTheFirstFit)
{
    Ref<GstElement> tee = Make("tee");
    ASSERT_TRUE(tee);
    // Two output pads after the input: only the first one may be taken.
    Ref<GstPad> src0(gst_element_request_pad_simple(tee.get(), "src_%u"));
    Ref<GstPad> src1(gst_element_request_pad_simple(tee.get(), "src_%u"));
    Ref<GstPad> first(CDSUtility::GetFirstPin(tee.get()));
    EXPECT_EQ(PadName(first.get()), "sink");

    GstPad* out = reinterpret_cast<GstPad*>(0x1);
    EXPECT_EQ(CDSUtility::GetPins(tee.get(), nullptr, &out), zub::S_OK);
    Ref<GstPad> outRef(out);
    EXPECT_EQ(out, src0.get());

    GstPad* in = nullptr;
    out = nullptr;
    EXPECT_EQ(CDSUtility::GetPins(tee.get(), &in, &out), zub::S_OK);
    Ref<GstPad> inRef(in), outRef2(out);
    EXPECT_EQ(PadName(in), "sink");
    EXPECT_EQ(out, src0.get());

    // A source has no input: the walk runs out (S_FALSE) and hands over what it found.
    Ref<GstElement> source = Make("fakesrc");
    in = reinterpret_cast<GstPad*>(0x1);
    out = nullptr;
    EXPECT_EQ(CDSUtility::GetPins(source.get(), &in, &out), zub::S_FALSE);
    Ref<GstPad> srcOut(out);
    EXPECT_EQ(in, nullptr);
    EXPECT_EQ(PadName(out), "src");

    Ref<GstElement> bare = Bare();
    EXPECT_EQ(CDSUtility::GetFirstPin(bare.get()), nullptr);
    EXPECT_EQ(CDSUtility::GetFirstPin(nullptr), nullptr);
    EXPECT_EQ(CDSUtility::GetPins(nullptr, &in, &out), zub::E_POINTER);
    gst_element_release_request_pad(tee.get(), src0.get());
    gst_element_release_request_pad(tee.get(), src1.get());
}

TEST_F(GraphUtility, ConnectionFormatsOfRealPipelines)
{
    Prerolled rgb("videotestsrc num-buffers=1 ! video/x-raw,format=BGR,width=66,height=48,framerate=25/1 ! "
                  "fakesink name=sink");
    Ref<GstPad> pin(rgb.SinkPad("sink"));
    ASSERT_TRUE(pin);
    std::int64_t tpf = -1;
    zub::BITMAPINFOHEADER h{};
    ASSERT_EQ(CDSUtility::GetConnectionVideoInfo(pin.get(), &tpf, &h), zub::S_OK);
    EXPECT_EQ(tpf, 400000);
    EXPECT_EQ(h.biSize, 40u);
    EXPECT_EQ(h.biWidth, 66);
    EXPECT_EQ(h.biHeight, -48);  // top-down RGB
    EXPECT_EQ(h.biPlanes, 1);
    EXPECT_EQ(h.biBitCount, 24);
    EXPECT_EQ(h.biCompression, zub::BI_RGB);
    EXPECT_EQ(h.biSizeImage, 200u * 48);  // 198 bytes of pixels padded to 200
    zub::WAVEFORMATEX w{};
    EXPECT_EQ(CDSUtility::GetConnectionWaveFormat(pin.get(), &w), zub::E_FAIL);

    Prerolled yuv("videotestsrc num-buffers=1 ! video/x-raw,format=I420,width=64,height=48,framerate=30000/1001 ! "
                  "fakesink name=sink");
    Ref<GstPad> yuvPin(yuv.SinkPad("sink"));
    ASSERT_EQ(CDSUtility::GetConnectionVideoInfo(yuvPin.get(), &tpf, &h), zub::S_OK);
    EXPECT_EQ(tpf, 333667);
    EXPECT_EQ(h.biHeight, 48);
    EXPECT_EQ(h.biBitCount, 12);
    EXPECT_EQ(h.biCompression, zub::MakeFourCC('I', '4', '2', '0'));

    Prerolled still("videotestsrc num-buffers=1 ! video/x-raw,format=BGRA,width=8,height=8,framerate=0/1 ! "
                    "fakesink name=sink");
    Ref<GstPad> stillPin(still.SinkPad("sink"));
    ASSERT_EQ(CDSUtility::GetConnectionVideoInfo(stillPin.get(), &tpf, &h), zub::S_OK);
    EXPECT_EQ(tpf, 0);  // no rate: unknown
    EXPECT_EQ(h.biBitCount, 32);

    Prerolled pcm("audiotestsrc num-buffers=1 ! audio/x-raw,format=S16LE,rate=22050,channels=2 ! fakesink name=sink");
    Ref<GstPad> audioPin(pcm.SinkPad("sink"));
    ASSERT_EQ(CDSUtility::GetConnectionWaveFormat(audioPin.get(), &w), zub::S_OK);
    EXPECT_EQ(w.wFormatTag, zub::WAVE_FORMAT_PCM);
    EXPECT_EQ(w.nChannels, 2);
    EXPECT_EQ(w.nSamplesPerSec, 22050u);
    EXPECT_EQ(w.nAvgBytesPerSec, 88200u);
    EXPECT_EQ(w.nBlockAlign, 4);
    EXPECT_EQ(w.wBitsPerSample, 16);
    EXPECT_EQ(w.cbSize, 0);
    // Not a video connection: refused, and the header is left alone.
    h.biWidth = 12345;
    EXPECT_EQ(CDSUtility::GetConnectionVideoInfo(audioPin.get(), &tpf, &h), zub::E_FAIL);
    EXPECT_EQ(h.biWidth, 12345);

    Ref<GstElement> lonely = Make("fakesink");
    Ref<GstPad> unconnected(gst_element_get_static_pad(lonely.get(), "sink"));
    EXPECT_EQ(CDSUtility::GetConnectionVideoInfo(unconnected.get(), &tpf, &h), zub::VFW_E_NOT_CONNECTED);
}

TEST_F(GraphUtility, FindFilterInterfaceSearchesNestedBins)
{
    Ref<GstElement> empty(GST_ELEMENT(gst_object_ref_sink(gst_bin_new(nullptr))));
    void* found = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(CDSUtility::FindFilterInterface(GST_BIN(empty.get()), GST_TYPE_URI_HANDLER, &found), zub::E_FAIL);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(CDSUtility::FindFilterInterface(nullptr, GST_TYPE_URI_HANDLER, &found), zub::E_POINTER);
    EXPECT_EQ(CDSUtility::FindFilterInterface(GST_BIN(empty.get()), GST_TYPE_URI_HANDLER, nullptr), zub::E_POINTER);

    Ref<GstElement> graph(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
    GstElement* inner = gst_bin_new("inner");
    GstElement* filesrc = gst_element_factory_make("filesrc", nullptr);
    gst_bin_add(GST_BIN(inner), filesrc);
    gst_bin_add_many(GST_BIN(graph.get()), gst_element_factory_make("identity", nullptr), inner, nullptr);
    ASSERT_EQ(CDSUtility::FindFilterInterface(GST_BIN(graph.get()), GST_TYPE_URI_HANDLER, &found), zub::S_OK);
    Ref<GstElement> owned(static_cast<GstElement*>(found));
    EXPECT_EQ(found, filesrc);
    EXPECT_GE(GST_OBJECT_REFCOUNT_VALUE(filesrc), 2);  // the caller's reference

    EXPECT_EQ(CDSUtility::FindFilterInterface(GST_BIN(graph.get()), GST_TYPE_TAG_SETTER, &found), zub::E_NOINTERFACE);
    EXPECT_EQ(found, nullptr);
}

TEST_F(GraphUtility, PropertyPageOfAnElement)
{
    zub::CPropertyPage* page = reinterpret_cast<zub::CPropertyPage*>(0x1);
    Ref<GstElement> bare = Bare();
    EXPECT_EQ(CDSUtility::CreateFirstPropPage(G_OBJECT(bare.get()), &page), zub::E_FAIL);
    EXPECT_EQ(page, nullptr);

    Ref<GstElement> identity = Make("identity");
    ASSERT_EQ(CDSUtility::CreateFirstPropPage(G_OBJECT(identity.get()), &page), zub::S_OK);
    ASSERT_NE(page, nullptr);
    std::string title, help;
    zub::CSize size;
    zub::DWORD context = 99;
    ASSERT_EQ(CDSUtility::GetPageInfo(page, &title, &size, &help, &context), zub::S_OK);
    EXPECT_EQ(title, "Identity");
    EXPECT_FALSE(help.empty());
    EXPECT_EQ(context, 0u);
    EXPECT_EQ(size.cy, 24 + 24 * page->Count());
    EXPECT_GT(size.cx, 224);
    int silent = -1;
    for (int i = 0; i < page->Count(); ++i) {
        EXPECT_NE(page->Name(i), "name");  // inherited from the framework, not on the page
        if (page->Name(i) == "silent") silent = i;
    }
    ASSERT_GE(silent, 0);
    EXPECT_EQ(page->Value(silent), "true");
    EXPECT_TRUE(page->SetValue(silent, "false"));
    gboolean value = TRUE;
    g_object_get(identity.get(), "silent", &value, nullptr);
    EXPECT_FALSE(value);
    EXPECT_FALSE(page->SetValue(silent, "not a boolean"));
    EXPECT_EQ(page->Value(page->Count()), "");
    // Only requested outputs are filled.
    EXPECT_EQ(CDSUtility::GetPageInfo(page, nullptr, nullptr, nullptr, nullptr), zub::S_OK);
    EXPECT_EQ(CDSUtility::GetPageInfo(nullptr, &title, &size, &help, &context), zub::E_POINTER);
    // The page holds the element: it outlives the caller's own reference.
    page->AddRef();
    page->Release();
    GstElement* raw = identity.release();
    gst_object_unref(raw);
    EXPECT_EQ(page->Value(silent), "false");
    page->Release();
}

gboolean RefuseEverything(GstPad* pad, GstObject* parent, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) == GST_QUERY_ACCEPT_CAPS) {
        gst_query_set_accept_caps_result(query, FALSE);
        return TRUE;
    }
    return gst_pad_query_default(pad, parent, query);
}

gboolean AnswerNothing(GstPad*, GstObject*, GstQuery*) { return FALSE; }

TEST_F(GraphUtility, GetPinTakesARefusingPadButNotASilentOne)
{
    zub::gst::CapsPtr caps(gst_caps_from_string("video/x-raw,format=BGR"));
    Ref<GstElement> bare = Bare();
    GstPad* input = gst_pad_new("in", GST_PAD_SINK);
    GstPad* silent = gst_pad_new("silent", GST_PAD_SRC);
    GstPad* refusing = gst_pad_new("refusing", GST_PAD_SRC);
    GstPad* last = gst_pad_new("last", GST_PAD_SRC);
    gst_pad_set_query_function(silent, AnswerNothing);
    gst_pad_set_query_function(refusing, RefuseEverything);
    for (GstPad* p : {input, silent, refusing, last}) gst_element_add_pad(bare.get(), p);

    EXPECT_EQ(CDSUtility::QueryAccept(silent, caps.get()), zub::E_FAIL);
    EXPECT_EQ(CDSUtility::QueryAccept(refusing, caps.get()), zub::S_FALSE);
    Ref<GstPad> out(CDSUtility::GetPin(bare.get(), zub::PINDIR_OUTPUT, caps.get()));
    EXPECT_EQ(PadName(out.get()), "refusing");
    Ref<GstPad> in(CDSUtility::GetPin(bare.get(), zub::PINDIR_INPUT, caps.get()));
    EXPECT_EQ(PadName(in.get()), "in");
    // Without a type every pad of the direction qualifies.
    Ref<GstPad> any(CDSUtility::GetPin(bare.get(), zub::PINDIR_OUTPUT, nullptr));
    EXPECT_EQ(PadName(any.get()), "silent");
}

TEST_F(GraphUtility, ConnectTwoFilterLinksRealElements)
{
    Ref<GstElement> graph(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
    GstElement* src = gst_element_factory_make("videotestsrc", nullptr);
    GstElement* convert = gst_element_factory_make("videoconvert", nullptr);
    GstElement* sink = gst_element_factory_make("fakesink", nullptr);
    gst_bin_add_many(GST_BIN(graph.get()), src, convert, sink, nullptr);
    GstBin* bin = GST_BIN(graph.get());

    EXPECT_EQ(CDSUtility::ConnectTwoFilter(bin, src, convert, nullptr), zub::S_OK);
    EXPECT_EQ(CDSUtility::ConnectTwoFilter(bin, convert, sink, nullptr), zub::S_OK);
    Ref<GstPad> srcPad(gst_element_get_static_pad(src, "src"));
    Ref<GstPad> peer(gst_pad_get_peer(srcPad.get()));
    Ref<GstElement> peerOwner(gst_pad_get_parent_element(peer.get()));
    EXPECT_EQ(peerOwner.get(), convert);
    EXPECT_EQ(CDSUtility::ConnectTwoFilter(bin, src, convert, nullptr), zub::VFW_E_ALREADY_CONNECTED);

    // The linked graph really runs.
    g_object_set(src, "num-buffers", 3, nullptr);
    gst_element_set_state(graph.get(), GST_STATE_PLAYING);
    Ref<GstBus> bus(gst_element_get_bus(graph.get()));
    zub::gst::MessagePtr msg(gst_bus_timed_pop_filtered(bus.get(), 10 * GST_SECOND,
                                                        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    ASSERT_TRUE(msg);
    EXPECT_EQ(GST_MESSAGE_TYPE(msg.get()), GST_MESSAGE_EOS);
    gst_element_set_state(graph.get(), GST_STATE_NULL);

    // No output pad upstream: E_FAIL. No input pad downstream: the link request answers for
    // a missing pad (the output pad is what gets checked twice).
    GstElement* src2 = gst_element_factory_make("videotestsrc", nullptr);
    GstElement* sink2 = gst_element_factory_make("fakesink", nullptr);
    gst_bin_add_many(bin, src2, sink2, nullptr);
    EXPECT_EQ(CDSUtility::ConnectTwoFilter(bin, sink2, src2, nullptr), zub::E_FAIL);
    EXPECT_EQ(CDSUtility::ConnectTwoFilter(bin, src2, src2, nullptr), zub::E_POINTER);
    // Elements outside the graph are refused.
    Ref<GstElement> outsider = Make("fakesink");
    EXPECT_EQ(CDSUtility::ConnectTwoFilter(bin, src2, outsider.get(), nullptr), zub::VFW_E_NOT_IN_GRAPH);
}

std::string GuidText(const zub::GUID& g)
{
    char buf[40];
    std::snprintf(buf, sizeof buf, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1, g.Data2, g.Data3,
                  g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return buf;
}

TEST(GraphIdentifiers, ExportedGettersGiveTheFiltersIdentifiers)
{
    EXPECT_EQ(GuidText(Get_REFIID_IID_IAudioDumpInfo()), "{45A7B24B-9786-11D3-9822-00E081102E92}");
    EXPECT_EQ(GuidText(Get_REFCLSID_CLSID_AudioDump()), "{AEDD5683-9454-11D3-A451-000000000000}");
    EXPECT_EQ(GuidText(Get_REFIID_IID_IAudioDumpFileInfo()), "{6311AF39-9BC4-11D3-9822-00E081102E92}");
    EXPECT_EQ(GuidText(Get_REFCLSID_CLSID_AudioDumpFile()), "{EAAB6C99-9914-11D3-9822-00E081102E92}");
    EXPECT_EQ(GuidText(Get_CLSID_IID_ILigosMpegVideoDecoder()), "{CB51EFC2-40D6-11D3-B265-00A0C9A3A56F}");
    // References to one constant, not copies.
    EXPECT_EQ(&Get_REFIID_IID_IAudioDumpInfo(), &Get_REFIID_IID_IAudioDumpInfo());
}

}  // namespace
