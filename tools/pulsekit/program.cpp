// simulate: an example of a scene. completion: what a shell can complete.
#include <filesystem>
#include <memory>

#include "commands.h"
#include "completion.h"
#include "files.h"
#include "output.h"
#include "simulation.h"
#include "system.h"

namespace tool {

namespace {

void writeScene(const std::string &path) {
  if (path != "-" && std::filesystem::exists(pathOf(path)))
    throw Failure(cat(path, ": exists already"), "choose another name");
  NewFile file(path);
  file.write(kExampleScene);
  file.commit();
  if (path != "-") note(cat(path, ": an example; try pulsekit --simulate=", path, " capture --plot"));
}

}  // namespace

void addProgramCommands(const Command &program, const Options &) {
  const Command scene = program.add("simulate", "Write an example of what a simulated radar can see");
  const auto path = std::make_shared<std::string>("-");
  scene.argument("FILE", *path, "Scene file; standard output without");
  scene.runs([path] { writeScene(*path); });

  const Command completing = program.add("completion", "Print the shell's completion of this program");
  const auto shell = std::make_shared<std::string>("bash");
  completing.argument("SHELL", *shell, join(completedShells(), ", ")).oneOf(completedShells());
  completing.runs([program, shell] { print(completion(program, *shell)); });
}

}  // namespace tool
