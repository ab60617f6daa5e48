#include "settings/view/SettingsViews.h"

namespace zub::settings {

std::unique_ptr<controls::CTabdDlg> MakeSettingsDialog(QWidget* parent, const SettingsDialogLayout& layout,
                                                       ImportSettings& settings)
{
    auto dlg = std::make_unique<controls::CTabdDlg>(layout.title, parent);
    dlg->setObjectName("settingsDialog");
    for (const LeadingPage& p : layout.leading) {
        if (!p.page) continue;
        auto* page = dynamic_cast<controls::CTabdDlgPage*>(p.page);
        dlg->AddPage(p.page, p.title.isEmpty() && page ? page->Title() : p.title);
    }
    if (layout.video) dlg->AddPage(new CVidRecSettingsDlg(RatePage::Kind::Video, settings));
    if (layout.alpha) dlg->AddPage(new CVidRecSettingsDlg(RatePage::Kind::Alpha, settings));
    if (layout.audio) dlg->AddPage(new CAudRecSettingsDlg(settings, layout.audioDvaOption));
    const ImportSettings before = settings;
    dlg->SetOnCancel([&settings, before] { settings = before; });
    return dlg;
}

int RunSettingsDialog(QWidget* parent, const SettingsDialogLayout& layout, ImportSettings& settings)
{
    auto dlg = MakeSettingsDialog(parent, layout, settings);
    return dlg->exec() == QDialog::Accepted ? 1 : 2;
}

SettingsDialogLayout ConversionSettingsLayout(bool alphaPage, QWidget* convertVideoPage, bool audioDvaOption)
{
    SettingsDialogLayout l;
    l.title = "Media Conversion Settings";
    if (convertVideoPage) l.leading.push_back({convertVideoPage, "Convert Video"});
    l.video = true;
    l.alpha = alphaPage;
    l.audio = true;
    l.audioDvaOption = audioDvaOption;
    return l;
}

int RunConversionSettingsDialog(QWidget* parent, bool alphaPage, QWidget* convertVideoPage, bool audioDvaOption)
{
    return RunSettingsDialog(parent, ConversionSettingsLayout(alphaPage, convertVideoPage, audioDvaOption));
}

SettingsDialogLayout BatchSettingsLayout()
{
    SettingsDialogLayout l;
    l.title = "Batch Import Settings";
    l.video = true;
    l.alpha = true;
    l.audio = false;
    return l;
}

int RunBatchSettingsDialog(QWidget* parent)
{
    return RunSettingsDialog(parent, BatchSettingsLayout());
}

}  // namespace zub::settings
