// An edit for a decimal number held as a scaled integer (hundredths with two places), with a
// vertical scroll control beside it that steps the value, a limit on what may be typed, and
// the module's three out-of-range messages.
#pragma once

#include <QLineEdit>
#include <QPointer>
#include <QScrollBar>

#include <optional>
#include <string>

namespace zub::controls {

class NumericEdit : public QLineEdit {
public:
    explicit NumericEdit(QWidget* parent = nullptr);
    ~NumericEdit() override;

    // Bounds and step in scaled units, places after the point (2: hundredths). With a step
    // above 1 only min + k*step are accepted.
    void SetRange(int minimum, int maximum, int places, int step = 1);
    void SetMaxChars(int n) { setMaxLength(n); }

    int Minimum() const { return min_; }
    int Maximum() const { return max_; }
    int Places() const { return places_; }
    int Step() const { return step_; }

    // Shows the value with all its places ("3.00").
    void SetValue(int scaled);
    // The typed value, or nullopt when the text is not a number with at most Places() places.
    std::optional<int> Value() const;
    bool InRange() const;

    // The message the value earns, "" when acceptable: "Value is out of range!" for text that
    // is no number, the "between %s and %s" form for a plain range, and the "accepted
    // numbers" form when only steps are accepted.
    std::string RangeMessage() const;
    // Tells RangeMessage() through the module's prompter; true when there was nothing to say.
    bool Validate();
    // Check (and tell) when the user leaves the edit or presses Enter. Off by default: pages
    // that validate on apply say their own message instead.
    void SetValidateOnLeave(bool on) { validateOnLeave_ = on; }

    // The scroll control; the owner places it beside the edit (a layout takes it over).
    QScrollBar* Scroll() const { return scroll_; }

protected:
    void changeEvent(QEvent* e) override;

private:
    void OnScrolled(int position);
    void OnTextEdited();
    void SyncScroll(int scaled);

    int min_ = 0;
    int max_ = 100;
    int places_ = 0;
    int step_ = 1;
    bool validateOnLeave_ = false;
    bool telling_ = false;
    QPointer<QScrollBar> scroll_;
};

}  // namespace zub::controls
