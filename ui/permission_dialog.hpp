#pragma once

#include "app/notification_prompter.hpp"

#include <functional>

namespace orbweave::ui {

/// Asks with a non-modal dialog titled "Requesting Permission" (Allow, Deny) where
/// notifications cannot ask; closing it refuses. answer is called exactly once.
void ask_with_dialog(const app::prompt_text& text, std::function<void(bool)> answer);

} // namespace orbweave::ui
