// All that depends on the interpreter's version or is no part of its public interface; nothing else names either.
//
// CPython 3.10 keeps what makes it fast: functions whose code is assembled by hand, names remembered by version tags.
// Later versions use the public interface, and code that their own compiler makes.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "error.hpp"

#if PY_VERSION_HEX >= 0x030D0000 && PY_VERSION_HEX < 0x030E0000
extern "C" int _PyObject_GetMethod(PyObject*, PyObject*, PyObject**);  // exported, but in no public header
#endif

namespace py {

// Calls

/// PyObject_Vectorcall; on 3.10 with the check for a callee that does not keep to the protocol in line.
inline PyObject* vectorcall(PyThreadState* thread, PyObject* callable, PyObject* const* stack, std::size_t flags,
                            PyObject* keywords) {
#if PY_VERSION_HEX < 0x030B0000
  const vectorcallfunc entry = PyVectorcall_Function(callable);
  if (entry == nullptr) [[unlikely]]
    return _PyObject_MakeTpCall(thread, callable, stack, PyVectorcall_NARGS(flags), keywords);
  PyObject* result = entry(callable, stack, flags, keywords);
  if (result != nullptr && thread->curexc_type == nullptr) [[likely]]
    return result;
  return _Py_CheckFunctionResult(thread, callable, result, nullptr);
#else
  static_cast<void>(thread);
  return PyObject_Vectorcall(callable, stack, flags, keywords);
#endif
}

/// Writes `object.name`, or null with an error set; says whether it is a plain function to be called with `object`.
inline bool look_up_method(PyObject* object, PyObject* name, PyObject** found) {
#if PY_VERSION_HEX < 0x030E0000
  return _PyObject_GetMethod(object, name, found) != 0;
#else
  *found = PyObject_GetAttr(object, name);
  return false;
#endif
}

/// The attribute of a type that a statement of the language looks up, borrowed, or null without an error.
inline PyObject* on_type(PyTypeObject* type, PyObject* name) { return _PyType_Lookup(type, name); }

/// PyDict_GetItemWithError with the hash that a str keeps.
inline PyObject* dict_value(PyObject* dict, PyObject* key) {
  const Py_hash_t hash = PyUnicode_CheckExact(key) ? reinterpret_cast<PyASCIIObject*>(key)->hash : -1;
  return hash != -1 ? _PyDict_GetItem_KnownHash(dict, key, hash) : PyDict_GetItemWithError(dict, key);
}

// Entering a function

/// Tells whether somebody watches calls: a tracer, a profiler or, from 3.12 on, a tool of sys.monitoring.
class Watchers {
 public:
  bool any(PyThreadState* thread, const PyCodeObject* code) {
#if PY_VERSION_HEX < 0x030C0000
    static_cast<void>(code);
    return thread->cframe->use_tracing != 0;
#else
    // Code that ran while it was watched keeps the data for that; from then on the interpreter sees to it.
    return code->_co_monitoring != nullptr || any_tool(thread);
#endif
  }

#if PY_VERSION_HEX >= 0x030C0000
 private:
  bool any_tool(PyThreadState* thread);
#endif
#if PY_VERSION_HEX >= 0x030D0000
  std::array<PyMonitoringState, _PY_MONITORING_UNGROUPED_EVENTS> states_{};
  std::uint64_t version_ = 0;  // of the set of tools
  bool active_ = false;
#endif
};

/// Whether a call from C may take a level of recursion; where there is none left, the interpreter words the error.
inline bool has_room([[maybe_unused]] const PyThreadState* thread) {
#if PY_VERSION_HEX < 0x030C0000
  return true;
#else
  return thread->py_recursion_remaining > 0;
#endif
}

/// Takes a level of recursion, of Python calls as of C calls; false with RecursionError set.
inline bool enter_call([[maybe_unused]] PyThreadState* thread) {
  const bool entered = Py_EnterRecursiveCall("") == 0;
#if PY_VERSION_HEX >= 0x030C0000
  if (entered) --thread->py_recursion_remaining;
#endif
  return entered;
}

inline void leave_call([[maybe_unused]] PyThreadState* thread) {
#if PY_VERSION_HEX < 0x030B0000
  --thread->recursion_depth;  // Py_LeaveRecursiveCall, in line
#else
  Py_LeaveRecursiveCall();
#endif
#if PY_VERSION_HEX >= 0x030C0000
  ++thread->py_recursion_remaining;
#endif
}

/// The interpreter's own entry of a plain function, known once one has been made.
inline vectorcallfunc by_interpreter = nullptr;

/// Makes calls of `function` go to `entry`. On 3.11 those that the interpreter makes itself do not.
void set_entry(PyFunctionObject* function, vectorcallfunc entry);

// Code objects

/// The code of a function that calls `callee`, its last constant, with all of its parameters.
Object calling_code(const char* name, Handle qualified_name, Handle parameters, const char* doc, Handle callee,
                    Where where);
/// The code of a generator: `for member in members: yield function(member)`
Object generator_code(Handle qualified_name, Where where);
/// `import module`, or `from module import names`, in the namespace `globals`
void import_into(Handle globals, const char* module, std::initializer_list<const char*> names, Where where);

// Names of a namespace

#if PY_VERSION_HEX < 0x030C0000
/// Exact dicts are numbered anew at each change, and no two have the same number.
class DictStates {
 public:
  using State = std::uint64_t;
  static constexpr State never = 0;

  /// Where the number of `mapping` stands; what is no exact dict has one that nothing remembers.
  class Place {
   public:
    explicit Place(Handle mapping) noexcept
        : tag_(PyDict_CheckExact(mapping) ? &static_cast<PyDictObject*>(mapping)->ma_version_tag : &other) {}
    State now() const noexcept { return *tag_; }

   private:
    static constexpr State other = ~State{0};
    const State* tag_;
  };

  /// The state of an exact dict, to be remembered with what is found in it.
  State watch(Handle dict) const noexcept { return Place(dict).now(); }
};
#else
/// The interpreter tells when a dict that is watched changes, so all that was remembered before is looked up again.
class DictStates {
 public:
  struct State {
    PyObject* dict;
    std::uint64_t changes;  // of all dicts that are watched, until this one was looked at
    bool operator==(const State&) const = default;
  };
  static constexpr State never{nullptr, 0};

  class Place {
   public:
    explicit Place(Handle mapping) noexcept : mapping_(mapping) {}
    State now() const noexcept { return {mapping_, changes.load(std::memory_order_relaxed)}; }

   private:
    PyObject* mapping_;
  };

  DictStates() noexcept;
  DictStates(const DictStates&) = delete;
  DictStates& operator=(const DictStates&) = delete;
  ~DictStates();
  State watch(Handle dict) const noexcept;

 private:
  static int changed(PyDict_WatchEvent, PyObject*, PyObject*, PyObject*) noexcept;
  static inline std::atomic<std::uint64_t> changes = 1;  // of dicts of all interpreters, which may run side by side
  int watcher_;  // negative where the interpreter has no more of them: then nothing is remembered
};
#endif

// Frames and exceptions

/// The code of the frames that calls are made from, by place.
class CallingFrames {
 public:
  CallingFrames();
  /// `callable(*arguments)` from a frame of `function` at `where`, for a callee that looks at its caller, as a logger
  /// does.
  Object call(const char* function, Handle globals, Where where, Handle callable, Handle arguments);

#if PY_VERSION_HEX >= 0x030B0000
 private:
  Object code_;  // to be moved to each place
  Object by_place_ = steal(PyDict_New());
#endif
};

/// Makes an exception the one being handled, as an except clause does, for as long as this lives.
class Handling {
 public:
  Handling(Object type, Object value, Object traceback) noexcept;
  Handling(const Handling&) = delete;
  Handling& operator=(const Handling&) = delete;
  ~Handling();

 private:
  PyThreadState* thread_;
  _PyErr_StackItem item_;
};

/// Says that `type` has no method `name` that a with statement needs.
[[noreturn]] void no_context_manager(PyTypeObject* type, Operand name);

// Modules

/// The slots of a module whose body is `execute`. It needs the interpreter lock, and each interpreter may have its own.
PyModuleDef_Slot* module_slots(int (*execute)(PyObject*) noexcept) noexcept;

}  // namespace py
