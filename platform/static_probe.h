#pragma once

#if defined(TERN_STATIC_PROBES) && __has_include(<sys/sdt.h>)
#define TERN_HAS_STATIC_PROBES
#include <sys/sdt.h>
#endif

// Static probes: places by name that a tracer finds in the library's notes (docs/diagnostics.md), of the
// provider "tern". Each is an instruction that does nothing until a tracer puts its own there, with arguments
// that the tracer reads where they are. So arguments are what is at hand anyway: addresses and numbers.
// Without sys/sdt.h, or with TERN_STATIC_PROBES off, nothing is left of them.

/// A probe: to whom it happens, or null, and the name as a text, or null.
#ifdef TERN_HAS_STATIC_PROBES
#define TERN_PROBE(probe, object, name) STAP_PROBE2(tern, probe, object, name)
#else
#define TERN_PROBE(probe, object, name) static_cast<void>(0)
#endif

/// The same with something more.
#ifdef TERN_HAS_STATIC_PROBES
#define TERN_PROBE_AND(probe, object, name, more) STAP_PROBE3(tern, probe, object, name, more)
#else
#define TERN_PROBE_AND(probe, object, name, more) static_cast<void>(0)
#endif
