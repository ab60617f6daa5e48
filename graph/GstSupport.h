// Ownership of GStreamer objects and the one-time framework start shared by the graph code.
#pragma once

#include <gst/gst.h>

#include <memory>
#include <string>

namespace zub::gst {

struct ObjectUnref {
    void operator()(gpointer p) const { gst_object_unref(p); }
};
struct CapsUnref {
    void operator()(GstCaps* c) const { gst_caps_unref(c); }
};
struct IteratorFree {
    void operator()(GstIterator* it) const { gst_iterator_free(it); }
};
struct QueryUnref {
    void operator()(GstQuery* q) const { gst_query_unref(q); }
};
struct SampleUnref {
    void operator()(GstSample* s) const { gst_sample_unref(s); }
};
struct MessageUnref {
    void operator()(GstMessage* m) const { gst_message_unref(m); }
};
struct ErrorFree {
    void operator()(GError* e) const { g_error_free(e); }
};
struct GFree {
    void operator()(gpointer p) const { g_free(p); }
};
struct ValueUnset {
    void operator()(GValue* v) const { g_value_unset(v); }
};

// Takes the pipeline down to NULL (which joins its streaming threads) before dropping it.
struct PipelineRelease {
    void operator()(GstElement* p) const
    {
        gst_element_set_state(p, GST_STATE_NULL);
        gst_object_unref(p);
    }
};
using PipelinePtr = std::unique_ptr<GstElement, PipelineRelease>;

template <class T>
using Ref = std::unique_ptr<T, ObjectUnref>;
using CapsPtr = std::unique_ptr<GstCaps, CapsUnref>;
using IteratorPtr = std::unique_ptr<GstIterator, IteratorFree>;
using QueryPtr = std::unique_ptr<GstQuery, QueryUnref>;
using SamplePtr = std::unique_ptr<GstSample, SampleUnref>;
using MessagePtr = std::unique_ptr<GstMessage, MessageUnref>;
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;
using CharPtr = std::unique_ptr<gchar, GFree>;

// Passes through one process-wide mutex. Called by the owner's thread before it starts a graph
// and after it has joined one, and by our callbacks on their way in and out: the framework
// hands work between threads under futex-based locks that race detectors cannot see, and
// these passes make the same ordering visible to them. The mutex lives in static storage so
// that no object's allocation needs to be ordered first.
void HandOver();

// Starts the framework once per process; false (with the reason) when it cannot start.
bool EnsureInitialised(std::string* error);

// False and "<what> is missing" when an element factory is not installed.
bool HaveElements(std::initializer_list<const char*> factories, std::string* error);

}  // namespace zub::gst
