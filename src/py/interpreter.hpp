// What depends on the interpreter's version, and what is no part of its public interface. No other file checks the
// version or uses a name that begins with _Py.
//
// On CPython 3.10 code objects are assembled from instructions, and names are remembered by the version tags of dicts.
// On later versions code objects are compiled from Python source, and dicts are watched from 3.12 on.
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

/// PyObject_Vectorcall; on 3.10 the check that a callee returned either a result or an error is inline.
inline PyObject* vectorcall([[maybe_unused]] PyThreadState* thread, PyObject* callable, PyObject* const* stack,
                            std::size_t flags, PyObject* keywords) {
#if PY_VERSION_HEX < 0x030B0000
  const vectorcallfunc entry = PyVectorcall_Function(callable);
  if (entry == nullptr) [[unlikely]]
    return _PyObject_MakeTpCall(thread, callable, stack, PyVectorcall_NARGS(flags), keywords);
  PyObject* result = entry(callable, stack, flags, keywords);
  if (result != nullptr && thread->curexc_type == nullptr) [[likely]]
    return result;
  return _Py_CheckFunctionResult(thread, callable, result, nullptr);
#else
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

/// The attribute `name` of a type or its bases, as a with statement looks `__enter__` up: a borrowed reference, or null
/// without an error.
inline PyObject* on_type(PyTypeObject* type, PyObject* name) { return _PyType_Lookup(type, name); }

/// PyDict_GetItemWithError with the hash that a str keeps.
inline PyObject* dict_value(PyObject* dict, PyObject* key) {
  const Py_hash_t hash = PyUnicode_CheckExact(key) ? reinterpret_cast<PyASCIIObject*>(key)->hash : -1;
  return hash != -1 ? _PyDict_GetItem_KnownHash(dict, key, hash) : PyDict_GetItemWithError(dict, key);
}

// Entering a function

/// Tells whether a call may go straight to the body of its function: not while somebody watches calls (a tracer, a
/// profiler or, from 3.12 on, a tool of sys.monitoring).
class DirectCalls {
 public:
  bool allowed(PyThreadState* thread, [[maybe_unused]] const PyCodeObject* code) {
#if PY_VERSION_HEX < 0x030C0000
    return thread->cframe->use_tracing == 0;
#else
    // Without a level of recursion left the interpreter raises the error. Code that once ran while it was watched keeps
    // its instrumentation, and is left to the interpreter from then on.
    return thread->py_recursion_remaining > 0 && code->_co_monitoring == nullptr && !watched(thread);
#endif
  }

#if PY_VERSION_HEX >= 0x030C0000
 private:
  bool watched(PyThreadState* thread);
#endif
#if PY_VERSION_HEX >= 0x030D0000
  std::array<PyMonitoringState, _PY_MONITORING_UNGROUPED_EVENTS> states_{};
  std::uint64_t version_ = 0;  // of the set of tools
  bool active_ = false;
#endif
};

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

/// The interpreter's own entry of a plain function, known once one has been made. Interpreters with locks of their own
/// may write it, always the same value, at the same time.
inline std::atomic<vectorcallfunc> by_interpreter = nullptr;

/// Makes calls of `function` go to `entry`. On 3.11 those that the interpreter makes itself do not.
void set_entry(PyFunctionObject* function, vectorcallfunc entry);

// Code objects

/// The code of a function whose body is `return callee(*parameters)`; `callee` is its last constant.
Object calling_code(const char* name, Handle qualified_name, Handle parameters, const char* doc, Handle callee,
                    Where where);
/// The code of a generator: `for member in members: yield function(member)`
Object generator_code(Handle qualified_name, Where where);
/// `import module`, or `from module import names`, in the namespace `globals`
void import_into(Handle globals, const char* module, std::initializer_list<const char*> names, Where where);

// Names of a namespace

#if PY_VERSION_HEX < 0x030C0000
/// Tells whether a dict has changed. The interpreter gives each dict a version tag, a number that no other dict has,
/// and a new one at each change.
class DictStates {
 public:
  using State = std::uint64_t;
  static constexpr State never = 0;

  /// Where the tag of `mapping` is stored; for what is no exact dict, a state that is never remembered.
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
/// Tells whether a dict has changed. The interpreter calls `changed` before a change of any dict that is watched; all
/// that was remembered until then is looked up again.
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
  /// `callable(*arguments)` from a frame of `function` at `where`, for a callee that looks for its caller, as a logger
  /// does.
  Object call(const char* function, Handle globals, Where where, Handle callable, Handle arguments);

#if PY_VERSION_HEX >= 0x030B0000
 private:
  Object code_;  // to be moved to each place
  Object by_place_ = steal(PyDict_New());
#endif
};

/// While this object lives, `value` is the exception being handled, as in an except clause.
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

/// Raises what a with statement raises where `type` has no method `name`.
[[noreturn]] void no_context_manager(PyTypeObject* type, Operand name);

// Modules

/// The slots of a module whose body is `execute`. It needs the interpreter lock, and each interpreter may have its own.
PyModuleDef_Slot* module_slots(int (*execute)(PyObject*) noexcept) noexcept;

}  // namespace py
