// speech-enhance: cleans recordings of speech. See --help.

#include "commands.h"
#include "console.h"
#include "enhance_command.h"
#include "errors.h"

int main(int argc, char** argv) {
  using namespace se_tool;
  try {
    const Command* command = find_command(argc, argv);
    return command != nullptr ? command->run(argc - 1, argv + 1) : run_enhance(argc, argv);
  } catch (const Error& error) {
    print_line(error.what());
    return error.code();
  } catch (const std::exception& error) {
    print_line(error.what());
    return static_cast<int>(ExitCode::kInternal);
  }
}
