// The typed classes of the intent family, expanded from IntentDeclarations.h.
//
// For an intent X: the class X (getters of its parameters over the backing
// store; set them with setValue), XResponse with XResponseCode (the seven
// codes), and XHandling, the handler's protocol. For an option class Y: Y,
// with its extra parameters, and YResolutionResult, whose success,
// disambiguation and confirmationRequired take a Y; the forms that take a
// plain INObject stop the process. For an enumeration Z: Z,
// ZResolutionResult and fromRawValue<Z>.
//
// A raw value comes from outside (a shortcut, a saved configuration of an
// older version) and may name no case. It is never cast: fromRawValue gives
// nothing for it, and the getter of a parameter reads it as `unknown`, the
// unset value, so a handler never acts on a case that does not exist.

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tarnwell/automation/IntentDeclarations.h"
#include "tarnwell/automation/Intents.h"

namespace tarnwell {

// Stops the process with "Fatal error" and the name of the file that
// declares the option class: the inherited resolution results that take a
// plain INObject must not be called.
[[noreturn]] void untypedResolutionResult(const char* file);

// --- Enumerations ---

// The case of `raw`; nothing for a raw value outside the enumeration.
template <class Enumeration>
std::optional<Enumeration> fromRawValue(std::int64_t raw);

namespace intent_cases {
// Each enumeration's cases again, unscoped, to count them.
#define TARNWELL_COUNT_ENUMERATION(Name, ...) \
  struct Name {                               \
    enum : int { __VA_ARGS__, count };        \
  };
TARNWELL_ENUMERATIONS(TARNWELL_COUNT_ENUMERATION)
#undef TARNWELL_COUNT_ENUMERATION
}  // namespace intent_cases

#define TARNWELL_DECLARE_ENUMERATION(Name, ...)                                          \
  enum class Name : int { __VA_ARGS__ };                                                 \
  template <>                                                                            \
  inline std::optional<Name> fromRawValue<Name>(std::int64_t raw) {                      \
    if (raw < 0 || raw >= intent_cases::Name::count) return std::nullopt;                \
    return static_cast<Name>(raw);                                                       \
  }                                                                                      \
  struct Name##ResolutionResult {                                                        \
    static INResolutionResult success(Name value) {                                      \
      return INResolutionResult::success(static_cast<std::int64_t>(value));              \
    }                                                                                    \
    static INResolutionResult confirmationRequired(Name value) {                         \
      return INResolutionResult::confirmationRequired(static_cast<std::int64_t>(value)); \
    }                                                                                    \
  };
TARNWELL_ENUMERATIONS(TARNWELL_DECLARE_ENUMERATION)
#undef TARNWELL_DECLARE_ENUMERATION

// --- Option objects ---

#define TARNWELL_OPTION_EXTRA(name, type) \
  std::optional<type> name() const { return property<type>(#name); }

#define TARNWELL_DECLARE_OPTION(Class, EXTRAS)                                                             \
  struct Class : INObject {                                                                                \
    static constexpr bool supportsSecureCoding = true;                                                     \
    Class(std::optional<std::string> id, std::string display) {                                            \
      className = #Class;                                                                                  \
      identifier = std::move(id);                                                                          \
      displayString = std::move(display);                                                                  \
    }                                                                                                      \
    /* An option of this class as it travels in a parameter. */                                            \
    explicit Class(const INObject& object) : INObject(object) { className = #Class; }                      \
    EXTRAS                                                                                                 \
                                                                                                           \
   private:                                                                                                \
    template <class T>                                                                                     \
    std::optional<T> property(const char* key) const {                                                     \
      const auto found = properties.find(key);                                                             \
      if (found == properties.end()) return std::nullopt;                                                  \
      if (const auto* value = std::get_if<T>(&found->second)) return *value;                               \
      return std::nullopt;                                                                                 \
    }                                                                                                      \
  };                                                                                                       \
  struct Class##ResolutionResult {                                                                         \
    static INResolutionResult success(const Class& value) { return INResolutionResult::success(value); }   \
    static INResolutionResult disambiguation(const std::vector<Class>& options) {                          \
      return INResolutionResult::disambiguation({options.begin(), options.end()});                         \
    }                                                                                                      \
    static INResolutionResult confirmationRequired(const Class& value) {                                   \
      return INResolutionResult::confirmationRequired(value);                                              \
    }                                                                                                      \
    [[noreturn]] static INResolutionResult success(const INObject&) { untypedResolutionResult(__FILE__); } \
    [[noreturn]] static INResolutionResult disambiguation(const std::vector<INObject>&) {                  \
      untypedResolutionResult(__FILE__);                                                                   \
    }                                                                                                      \
    [[noreturn]] static INResolutionResult confirmationRequired(const INObject&) {                         \
      untypedResolutionResult(__FILE__);                                                                   \
    }                                                                                                      \
  };
TARNWELL_OPTION_CLASSES(TARNWELL_DECLARE_OPTION, TARNWELL_OPTION_EXTRA)
#undef TARNWELL_DECLARE_OPTION
#undef TARNWELL_OPTION_EXTRA

// --- Intents ---

#define TARNWELL_GETTER_integer(name, type) \
  std::int64_t name() const { return integer(#name).value_or(0); }
#define TARNWELL_GETTER_number(name, type) \
  std::optional<double> name() const { return number(#name); }
#define TARNWELL_GETTER_enumeration(name, type) \
  type name() const { return fromRawValue<type>(integer(#name).value_or(0)).value_or(type::unknown); }
#define TARNWELL_GETTER_dateComponents(name, type) \
  std::optional<DateComponents> name() const { return dateComponents(#name); }
#define TARNWELL_GETTER_object(name, type) \
  std::optional<type> name() const {       \
    auto found = object(#name);            \
    if (!found) return std::nullopt;       \
    return type(*found);                   \
  }
#define TARNWELL_GETTER_objects(name, type)                 \
  std::optional<std::vector<type>> name() const {           \
    auto found = objects(#name);                            \
    if (!found) return std::nullopt;                        \
    return std::vector<type>(found->begin(), found->end()); \
  }
#define TARNWELL_GETTER(name, kind, type) TARNWELL_GETTER_##kind(name, type)

#define TARNWELL_DECLARE_INTENT(Class, PARAMETERS)                                                              \
  class Class : public INIntent {                                                                               \
   public:                                                                                                      \
    Class() : INIntent(#Class) {}                                                                               \
    PARAMETERS                                                                                                  \
  };                                                                                                            \
  using Class##ResponseCode = INIntentResponseCode;                                                             \
  struct Class##Response : INIntentResponse {                                                                   \
    Class##Response() = default;                                                                                \
    Class##Response(Class##ResponseCode responseCode, std::optional<NSUserActivity> activity)                   \
        : INIntentResponse{responseCode, std::move(activity)} {}                                                \
  };                                                                                                            \
  class Class##Handling {                                                                                       \
   public:                                                                                                      \
    virtual ~Class##Handling() = default;                                                                       \
    virtual void handle(const Class& intent, const std::function<void(Class##Response)>& completion) const = 0; \
  };
TARNWELL_INTENTS(TARNWELL_DECLARE_INTENT, TARNWELL_GETTER)
#undef TARNWELL_DECLARE_INTENT
#undef TARNWELL_GETTER
#undef TARNWELL_GETTER_integer
#undef TARNWELL_GETTER_number
#undef TARNWELL_GETTER_enumeration
#undef TARNWELL_GETTER_dateComponents
#undef TARNWELL_GETTER_object
#undef TARNWELL_GETTER_objects

// --- Parameters with their own reasons to refuse ---

enum class AddFocusRecordStartUnsupportedReason : int { startInTheFuture = 1 };
enum class AddFocusRecordEndUnsupportedReason : int { endNotAfterStart = 1 };

template <class Reason>
struct UnsupportedResolutionResult {
  static INResolutionResult unsupported(Reason reason) {
    return INResolutionResult::unsupported(static_cast<int>(reason));
  }
};
using AddFocusRecordStartResolutionResult = UnsupportedResolutionResult<AddFocusRecordStartUnsupportedReason>;
using AddFocusRecordEndResolutionResult = UnsupportedResolutionResult<AddFocusRecordEndUnsupportedReason>;

}  // namespace tarnwell
