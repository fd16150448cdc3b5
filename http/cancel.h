// Whether the operator wants a command to end. Whatever in it may take long asks between
// its waits.
// Threads: the command's own.
#pragma once

// An Ask: Ctrl+C was typed on the command's terminal, or the terminal is gone.
[[nodiscard]] bool ctrl_c_typed();

class Cancel {
  public:
    using Ask = bool (*)();

    // Nobody can cancel.
    Cancel() = default;
    // ask says whether the wish has come since it was last asked.
    explicit Cancel(Ask ask) : ask_(ask) {}

    // A wish once told stays told.
    [[nodiscard]] bool Requested() {
        if (!requested_ && ask_ != nullptr) requested_ = ask_();
        return requested_;
    }
    // Whether there was one so far; asks nobody.
    [[nodiscard]] bool requested() const { return requested_; }
    [[nodiscard]] bool possible() const { return ask_ != nullptr; }

  private:
    Ask ask_ = nullptr;
    bool requested_ = false;
};
