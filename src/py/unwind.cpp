// How a thread leaves when the interpreter ends it.
//
// A daemon thread that comes back for the interpreter lock after the interpreter's end is ended by pthread_exit, which
// unwinds the stack by force. On that way C++ would run destructors without the lock, and terminate the process at the
// first noexcept function. Frames of C are just passed over, and so are ours: the linker puts these in place of the
// personality routines that decide what a frame does (--wrap in CMakeLists.txt). Link-time optimisation gives functions
// that have nothing but destructors to run the second of them.
#include <unwind.h>

extern "C" {

using Personality = _Unwind_Reason_Code(int version, _Unwind_Action actions, _Unwind_Exception_Class kind,
                                        _Unwind_Exception* exception, _Unwind_Context* context);
Personality __real___gxx_personality_v0, __real___gcc_personality_v0;

_Unwind_Reason_Code __wrap___gxx_personality_v0(int version, _Unwind_Action actions, _Unwind_Exception_Class kind,
                                                _Unwind_Exception* exception, _Unwind_Context* context) {
  if ((actions & _UA_FORCE_UNWIND) != 0) return _URC_CONTINUE_UNWIND;
  return __real___gxx_personality_v0(version, actions, kind, exception, context);
}

_Unwind_Reason_Code __wrap___gcc_personality_v0(int version, _Unwind_Action actions, _Unwind_Exception_Class kind,
                                                _Unwind_Exception* exception, _Unwind_Context* context) {
  if ((actions & _UA_FORCE_UNWIND) != 0) return _URC_CONTINUE_UNWIND;
  return __real___gcc_personality_v0(version, actions, kind, exception, context);
}
}
