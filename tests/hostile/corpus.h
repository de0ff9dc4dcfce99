// The hostile-input corpus: a valid seed file of every input type the tools read, made at test
// time with the project's own writers (and the program itself for AVI and Velmo files), and the
// damaged files derived from each seed: cut short, with flipped bits, and with header fields that
// claim sizes, counts and rates the file cannot hold.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace hostile {

// What a tool may answer for a case.
enum class Expect {
  Valid,      // a good file: exit 0
  Reject,     // cannot be true (a frame or block is missing, a field lies): the input error
  SaidOnce,   // the input error, or 0 with exactly one warning: a short last frame or block where
              // the format allows one, or a damaged part (a sound track) left out of a good video
  Trailer,    // only a trailer after the last frame is missing: the input error, or 0 with at
              // most one warning
  Any,        // damage with no fixed answer (flipped bits): any of the tool's codes
};

const char* ExpectName(Expect e);

// The role an input plays for the tools.
enum class Role { Video, Velmo, Sound, List };

struct Case {
  std::string name;   // short label for reports, e.g. "png/cut50%"
  std::string file;   // full path of the input
  Role role = Role::Video;
  Expect expect = Expect::Any;
  // Switches the input needs to be read at all (raw sound: its layout).
  std::vector<std::string> convertSwitches, mixSwitches;
  bool mustFailInfo = false;  // ORNInfo too must answer the input error
};

// Files the corpus stands on, in one folder.
struct Seeds {
  std::string dir;
  std::string vlm;        // a Velmo file without sound
  std::string soundVlm;   // a Velmo file with one sound track
  std::string wave;       // a wave file as long as the video
};

// Makes every seed in `dir` and the cases derived from them. `program` is the built program,
// used to make the AVI and Velmo seeds. An empty result with `error` set when a seed could not
// be made.
std::vector<Case> BuildCorpus(const std::string& program, const std::string& configDir,
                              Seeds* seeds, std::string* error);

}  // namespace hostile
