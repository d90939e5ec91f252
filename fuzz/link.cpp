// A link handed to the app: the text as the platform gives it, read back by
// the scheme's tables.
#include <string>

#include "FuzzSupport.h"
#include "tarnwell/automation/URLScheme.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarnwell;
  fuzzing::environment();
  const auto url = URL::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!url) return 0;
  if (const auto link = URLScheme::fromURL(*url)) {
    // What the app does with a link it read: its action, its pairs, its text.
    (void)link->action();
    (void)link->parameters();
    (void)link->text();
    if (const auto* view = link->as<URLScheme::ViewFocus>(); view && view->widgetContext) {
      (void)view->widgetContext->familyName();
    }
  }
  return 0;
}
