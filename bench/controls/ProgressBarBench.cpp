#include <benchmark/benchmark.h>

#include <QApplication>
#include <QEvent>

#include <cstdlib>

#include "controls/ProgressBar.h"

namespace {

QApplication& App()
{
    static QApplication* app = [] {
        if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
        static int argc = 1;
        static char name[] = "bench";
        static char* argv[] = {name, nullptr};
        return new QApplication(argc, argv);
    }();
    return *app;
}

struct PaintCounter : QObject {
    long paints = 0;
    bool eventFilter(QObject*, QEvent* e) override
    {
        if (e->type() == QEvent::Paint) ++paints;
        return false;
    }
};

// 10,000 frames reported one by one to a 300-pixel bar, the event loop turning every 10
// frames as the conversion's dialog does between samples. everyFrame=1 forces a repaint per
// position, as a bar without the width rule would.
void BM_ProgressPerFrame(benchmark::State& state)
{
    auto& app = App();
    const bool everyFrame = state.range(0) != 0;
    constexpr int kFrames = 10000;
    long paints = 0;
    for (auto _ : state) {
        zub::controls::ProgressBar bar;
        bar.resize(300, 24);
        bar.SetRange(0, kFrames);
        bar.SetShowCounts(true);
        PaintCounter counter;
        bar.installEventFilter(&counter);
        bar.show();
        app.processEvents();
        for (int f = 1; f <= kFrames; ++f) {
            bar.SetPos(f);
            if (everyFrame) bar.update();
            if (f % 10 == 0) app.processEvents();
        }
        app.processEvents();
        paints = counter.paints;
    }
    state.counters["paints"] = double(paints);
    state.counters["frames/s"] = benchmark::Counter(double(kFrames) * state.iterations(), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ProgressPerFrame)->Arg(0)->Arg(1)->ArgName("repaintEveryFrame")->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
