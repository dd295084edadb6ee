// ReadmeExamples: the shell examples of README.md, read so that a test can
// run each one as written and compare what it prints with what README
// shows.
//
// An example is a line "$ COMMAND" in a fenced block (a command whose
// line ends with "|" or "\" goes on in the indented lines after it), the
// lines after it up to the next "$ " line or the block's end are what it
// prints, and a line "(exit N)" among them is its exit status (0 when
// there is none). Lines that begin "tovrel: " are the tool's messages on
// standard error; the rest is standard output.
//
// Shape() is the comparison's view of a text: numbers, sizes and times
// vary between runs and machines and are masked, words and layout are not.
//
// Plain values; stateless functions.
#ifndef TOVREL_TESTS_README_EXAMPLES_H
#define TOVREL_TESTS_README_EXAMPLES_H

#include <string>
#include <vector>

namespace Tovrel {
namespace Testing {

class ReadmeExamples {
 public:
  struct Example {
    std::string command;
    std::vector<std::string> out;  // standard output, as README shows it
    std::vector<std::string> err;  // the tool's messages
    int status = 0;
    int line = 0;  // README's line of the "$ "
  };
  // One fenced block's examples.
  struct Block {
    std::vector<Example> examples;
  };

  // The blocks of `markdown` that hold at least one example.
  static std::vector<Block> Parse(const std::string& markdown);
  // `text`'s lines in the comparison's view: every number masked as "#"
  // (with "1" kept, so that "1 effect" and "2 effects" stay told apart),
  // sizes in KiB, MiB or GiB as "# iB", durations as "# time", the
  // effect an "oldest used" or "newest used" line names (many share a
  // millisecond, so which one it is depends on the run) as "(an effect)",
  // runs of spaces as one; lines empty after that dropped.
  static std::vector<std::string> Shape(const std::vector<std::string>& lines);
  static std::vector<std::string> Lines(const std::string& text);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
