// Compiled into every test program of the ThreadSanitizer build. A bind in the process that meets
// sockets which connected before it sets the high-water marks and the thread of their pipes from
// its own thread, while their owners look at them: plain integers inside ZeroMQ, in this one
// function, which sees no memory of ours.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:zmq::ctx_t::connect_inproc_sockets\n";
}
