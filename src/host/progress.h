// The tools' message sink, handed to the media layer and the output writers.
// Level 0: a status line; 1: a status line that starts a step; 2: an error to show in a box,
// which also cancels; 3: cancel without a word (text null); 4: a warning box, after which work
// goes on; 5: a yes/no question. A text that begins with "@" is one the tool may suppress.
// For levels 0 to 4 a non-zero answer means cancel; for level 5 a non-zero answer means yes.
// Every caller tests the function for null.
#pragma once

// `context` is the job the message belongs to, as the sink's owner gave it.
typedef int (*ProgressFn)(void* context, const char* text, int level);

// A sink and its job, stored and handed along together. A zeroed record is no sink.
struct ProgressSink {
  ProgressFn fn;
  void* context;
};

// Hands a message to the sink; 0 when there is no function.
inline int ProgressSend(const ProgressSink& sink, const char* text, int level) {
  return sink.fn ? sink.fn(sink.context, text, level) : 0;
}
