#include "interpreter.hpp"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "collection.hpp"
#include "text.hpp"
#include "value.hpp"

#if PY_VERSION_HEX < 0x030B0000
#include <frameobject.h>
#include <opcode.h>
#endif

namespace py {
namespace {

PyCodeObject* code_of(PyObject* object) { return reinterpret_cast<PyCodeObject*>(object); }

/// The file name of `where` in angle brackets, so that coverage reports do not look for Python source in it.
Object file_name(Where where) {
  const char* file = where.file_name();
  const char* slash = std::strrchr(file, '/');
  return steal(PyUnicode_FromFormat("<%s>", slash ? slash + 1 : file));
}

}  // namespace

void set_entry(PyFunctionObject* function, vectorcallfunc entry) {
  by_interpreter = function->vectorcall;
#if PY_VERSION_HEX < 0x030C0000
  function->vectorcall = entry;
#else
  PyFunction_SetVectorcall(function, entry);
#endif
}

#if PY_VERSION_HEX >= 0x030D0000
bool DirectCalls::watched(PyThreadState*) {
  static constexpr auto events = [] {
    std::array<std::uint8_t, _PY_MONITORING_UNGROUPED_EVENTS> all{};
    std::iota(all.begin(), all.end(), std::uint8_t{0});
    return all;
  }();
  const std::uint64_t known = version_;
  PyMonitoring_EnterScope(states_.data(), &version_, events.data(), events.size());
  if (version_ != known)
    active_ = std::any_of(states_.begin(), states_.end(), [](const auto& state) { return state.active != 0; });
  return active_;
}
#elif PY_VERSION_HEX >= 0x030C0000
bool DirectCalls::watched(PyThreadState* thread) {
  // The interpreter instruments all running code when a tool is set, so the code of the caller tells of it.
  if (thread->cframe->current_frame == nullptr) return true;
  const Object caller(PyUnstable_InterpreterFrame_GetCode(thread->cframe->current_frame));
  const auto* data = code_of(caller.get())->_co_monitoring;
  const auto is_set = [](std::uint8_t tools) { return tools != 0; };
  return data != nullptr && std::ranges::any_of(data->active_monitors.tools, is_set);
}
#endif

// Code objects

#if PY_VERSION_HEX < 0x030B0000
// Assembled, since this version's compiler may crash when memory runs out (ARCHITECTURE.md, Versions of the
// interpreter).
namespace {

class Assembly {
 public:
  void emit(int operation, std::size_t argument = 0) {
    if (end_ == std::end(code_)) Py_FatalError("an assembled code object has too many instructions");
    *end_++ = static_cast<char>(operation);
    *end_++ = static_cast<char>(argument);
  }

  /// The code object, whose lines are all that of `where`.
  Object code(Handle name, int arity, int stack, int flags, Handle constants, Handle names, Handle variables,
              Where where) const {
    const Object nothing = steal(PyTuple_New(0));
    const char line_table[] = {static_cast<char>(end_ - code_), 0};
    const Object lines = steal(PyBytes_FromStringAndSize(line_table, sizeof line_table));
    const Object bytes = steal(PyBytes_FromStringAndSize(code_, end_ - code_));
    const auto variable_count = static_cast<int>(PyTuple_GET_SIZE(static_cast<PyObject*>(variables)));
    return steal(reinterpret_cast<PyObject*>(PyCode_NewWithPosOnlyArgs(
        arity, 0, 0, variable_count, stack, flags, bytes.get(), constants, names, variables, nothing.get(),
        nothing.get(), file_name(where).get(), name, static_cast<int>(where.line()), lines.get())));
  }

 private:
  char code_[64];
  char* end_ = code_;
};

template <class... Text>
Object strings(const Text*... text) {
  return steal(PyTuple_Pack(sizeof...(text), Name(text).get()...));
}

}  // namespace

Object calling_code(const char* name, Handle, Handle parameters, const char* doc, Handle callee, Where where) {
  const auto arity = static_cast<int>(PyTuple_GET_SIZE(static_cast<PyObject*>(parameters)));
  Assembly code;
  code.emit(LOAD_CONST, 1);
  for (int i = 0; i < arity; ++i) code.emit(LOAD_FAST, i);
  code.emit(CALL_FUNCTION, arity);
  code.emit(RETURN_VALUE);
  const Object constants = steal(PyTuple_Pack(2, string(doc).get(), static_cast<PyObject*>(callee)));
  return code.code(string(name), arity, arity + 1, CO_OPTIMIZED | CO_NEWLOCALS | CO_NOFREE | CO_FUTURE_ANNOTATIONS,
                   constants, strings(), parameters, where);
}

Object generator_code(Handle, Where where) {
  constexpr std::size_t members = 0, function = 1, member = 2;
  constexpr std::size_t loop = 3, end = 11;  // by instructions
  Assembly code;
  code.emit(GEN_START);
  code.emit(LOAD_FAST, members);
  code.emit(GET_ITER);
  code.emit(FOR_ITER, end - (loop + 1));
  code.emit(STORE_FAST, member);
  code.emit(LOAD_FAST, function);
  code.emit(LOAD_FAST, member);
  code.emit(CALL_FUNCTION, 1);
  code.emit(YIELD_VALUE);
  code.emit(POP_TOP);
  code.emit(JUMP_ABSOLUTE, loop);
  code.emit(LOAD_CONST, 0);
  code.emit(RETURN_VALUE);
  return code.code(string("<genexpr>"), 2, 3, CO_OPTIMIZED | CO_NEWLOCALS | CO_GENERATOR | CO_NOFREE,
                   steal(PyTuple_Pack(1, Py_None)), strings(), strings("members", "function", "member"), where);
}

void import_into(Handle globals, const char* module, std::initializer_list<const char*> names, Where where) {
  const auto count = static_cast<Py_ssize_t>(names.size());
  const Object used = steal(PyTuple_New(1 + count));  // the module, then what is taken from it
  PyTuple_SET_ITEM(used.get(), 0, Name(module).release());
  for (Py_ssize_t i = 0; i < count; ++i) PyTuple_SET_ITEM(used.get(), 1 + i, Name(names.begin()[i]).release());
  const Object from_list = count ? steal(PyTuple_GetSlice(used.get(), 1, 1 + count)) : none();
  Assembly code;
  code.emit(LOAD_CONST, 0);
  code.emit(LOAD_CONST, 1);
  code.emit(IMPORT_NAME, 0);
  for (Py_ssize_t i = 1; i <= count; ++i) {
    code.emit(IMPORT_FROM, i);
    code.emit(STORE_NAME, i);
  }
  count ? code.emit(POP_TOP) : code.emit(STORE_NAME, 0);
  code.emit(LOAD_CONST, 2);
  code.emit(RETURN_VALUE);
  const Object constants = steal(PyTuple_Pack(3, integer(0).get(), from_list.get(), Py_None));
  const Object statement = code.code(string("<module>"), 0, 3, CO_NOFREE, constants, used, strings(), where);
  steal({PyEval_EvalCode(statement.get(), globals, globals), where});
}

#else
namespace {

/// The code of the module that `source` is.
Object compiled(Operand source) {
  const char* text = PyUnicode_AsUTF8(source);
  if (text == nullptr) throw Error{source.where};
  // The flag is one that the code of each function has, as if its source were under that import.
  PyCompilerFlags flags = {.cf_flags = CO_FUTURE_ANNOTATIONS, .cf_feature_version = PY_MINOR_VERSION};
  constexpr int keep_docstrings = 0;
  return steal({Py_CompileStringExFlags(text, "", Py_file_input, &flags, keep_docstrings), source.where});
}

/// The code of the one function that `source` defines.
Object compiled_function(Operand source) {
  return borrow(PyTuple_GET_ITEM(code_of(compiled(source).get())->co_consts, 0));
}

/// `code` with `changes`, as if it stood at `where`.
Object moved(Handle code, Dict changes, Where where) {
  changes.set(Name("co_filename"), file_name(where));
  changes.set(Name("co_firstlineno"), integer(where.line()));
  const Object replace = steal(PyObject_GetAttrString(code, "replace"));
  return steal(PyObject_Call(replace.get(), steal(PyTuple_New(0)).get(), changes.get()));
}

}  // namespace

Object calling_code(const char* name, Handle qualified_name, Handle parameters, const char* doc, Handle callee,
                    Where where) {
  const Object list = steal(PyUnicode_Join(string(", ").get(), parameters));
  // `0 or` keeps the compiler from warning that a str is called; it leaves no instruction.
  const Object source = steal(PyUnicode_FromFormat("def %s(%U): %R; return (0 or 'callee')(%U)", name, list.get(),
                                                   string(doc).get(), list.get()));
  const Object code = compiled_function(source);
  const List constants{Operand(code_of(code.get())->co_consts)};
  const Py_ssize_t last = constants.size() - 1;
  if (PyUnicode_CompareWithASCIIString(PyList_GET_ITEM(constants.get(), last), "callee") != 0)
    raise(PyExc_SystemError, "the compiler has put the callee of a function somewhere else");
  check(PyList_SetItem(constants.get(), last, borrow(callee).release()));
  Dict changes;
  changes.set(Name("co_consts"), steal(PyList_AsTuple(constants.get())));
  changes.set(Name("co_qualname"), qualified_name);
  return moved(code, changes, where);
}

Object generator_code(Handle qualified_name, Where where) {
  Dict changes;
  changes.set(Name("co_name"), Name("<genexpr>"));
  changes.set(Name("co_qualname"), qualified_name);
  const Object source = string("def pairs(members, function):\n for member in members: yield function(member)");
  return moved(compiled_function(source), changes, where);
}

void import_into(Handle globals, const char* module, std::initializer_list<const char*> names, Where where) {
  Object source = steal(PyUnicode_FromFormat(names.size() ? "from %s import " : "import %s", module));
  for (const char* name : names)
    source = steal(PyUnicode_FromFormat("%U%s%s", source.get(), name == *names.begin() ? "" : ", ", name));
  const Object statement = moved(compiled(source), Dict(), where);
  steal({PyEval_EvalCode(statement.get(), globals, globals), where});
}
#endif

// Names of a namespace

#if PY_VERSION_HEX >= 0x030C0000
DictStates::DictStates() noexcept : watcher_(PyDict_AddWatcher(&changed)) {
  if (watcher_ < 0) PyErr_Clear();
}

DictStates::~DictStates() {
  if (watcher_ >= 0 && PyDict_ClearWatcher(watcher_) < 0) PyErr_Clear();
}

DictStates::State DictStates::watch(Handle dict) const noexcept {
  if (watcher_ >= 0 && PyDict_Watch(watcher_, dict) == 0) return Place(dict).now();
  PyErr_Clear();
  return never;
}

int DictStates::changed(PyDict_WatchEvent, PyObject*, PyObject*, PyObject*) noexcept {
  changes.fetch_add(1, std::memory_order_relaxed);
  return 0;
}
#endif

// Frames and exceptions

#if PY_VERSION_HEX < 0x030B0000
CallingFrames::CallingFrames() = default;

Object CallingFrames::call(const char* function, Handle globals, Where where, Handle callable, Handle arguments) {
  PyThreadState* thread = PyThreadState_Get();
  const Object file = file_name(where);
  const auto line = static_cast<int>(where.line());
  const Object code =
      steal({reinterpret_cast<PyObject*>(PyCode_NewEmpty(PyUnicode_AsUTF8(file.get()), function, line)), where});
  const Object frame =
      steal({reinterpret_cast<PyObject*>(PyFrame_New(thread, code_of(code.get()), globals, nullptr)), where});
  PyFrameObject* caller = std::exchange(thread->frame, static_cast<PyFrameObject*>(Handle(frame)));
  PyObject* result = PyObject_Call(callable, arguments, nullptr);
  thread->frame = caller;
  return steal({result, where});
}
#else
CallingFrames::CallingFrames()
    : code_(compiled_function(string("def call(callable, arguments): return callable(*arguments)"))) {}

Object CallingFrames::call(const char* function, Handle globals, Where where, Handle callable, Handle arguments) {
  const Object place = steal({PyUnicode_FromFormat("%s %u", function, where.line()), where});
  Object code = find(by_place_, {place, where});
  if (!code) {
    Dict changes;
    changes.set(Name("co_name"), string(function));
    code = moved(code_, changes, where);
    check({PyDict_SetItem(by_place_.get(), place.get(), code.get()), where});
  }
  const Object caller = steal({PyFunction_New(code.get(), globals), where});
  PyObject* operands[] = {callable, arguments};
  return steal({PyObject_Vectorcall(caller.get(), operands, std::size(operands), nullptr), where});
}
#endif

// An item of its own on the stack of handled exceptions: the caller may be handling an exception, which must be found
// as it was.
Handling::Handling([[maybe_unused]] Object type, Object value, [[maybe_unused]] Object traceback) noexcept
    : thread_(PyThreadState_Get()) {
#if PY_VERSION_HEX < 0x030B0000
  item_ = {type.release(), value.release(), traceback.release(), thread_->exc_info};
#else
  item_ = {value.release(), thread_->exc_info};
#endif
  thread_->exc_info = &item_;
}

// What stands in the item by then, not what was put there: code that ran meanwhile may have exchanged it.
Handling::~Handling() {
  thread_->exc_info = item_.previous_item;
#if PY_VERSION_HEX < 0x030B0000
  const Object type(item_.exc_type), value(item_.exc_value), traceback(item_.exc_traceback);
#else
  const Object value(item_.exc_value);
#endif
}

void no_context_manager(PyTypeObject* type, Operand name) {
#if PY_VERSION_HEX < 0x030B0000
  static_cast<void>(type);
  PyErr_SetObject(PyExc_AttributeError, name);
#else
  PyErr_Format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol%s", type->tp_name,
               PyUnicode_CompareWithASCIIString(name, "__exit__") == 0 ? " (missed __exit__ method)" : "");
#endif
  throw Error{name.where};
}

// Modules

PyModuleDef_Slot* module_slots(int (*execute)(PyObject*) noexcept) noexcept {
  static PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(execute)},
#ifdef Py_mod_multiple_interpreters
                                     {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
#endif
#ifdef Py_mod_gil
                                     {Py_mod_gil, Py_MOD_GIL_USED},
#endif
                                     {0, nullptr}};
  return slots;
}

}  // namespace py
