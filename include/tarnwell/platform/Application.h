// Application: what the app asks of the system outside itself.
//
// A host passes its own (the phone's application object); the library never
// makes one.

#pragma once

#include <string>

namespace tarnwell {

class Application {
 public:
  virtual ~Application() = default;

  // Opens `url` in whichever application handles its scheme, with no options
  // and without waiting to hear whether it worked.
  virtual void open(const std::string& url) = 0;
};

}  // namespace tarnwell
