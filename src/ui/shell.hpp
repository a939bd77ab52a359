#pragma once

#include <memory>

#include "app/application.hpp"

namespace vistrel::ui {

// The window's side of the application: builds the window and its menus, fills the model's hooks,
// follows the window's visibility for the interval rule, and applies the developer hooks.
std::unique_ptr<ApplicationShell> makeWindowShell(Application& app);

}  // namespace vistrel::ui
