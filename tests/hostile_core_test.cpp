// qurn-inspect against cores that were made to mislead.
#include <elf.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/inspection_record.h"
#include "support/emulated.h"
#include "support/run_program.h"

namespace {

// It claims more memory than can be looked through, all of it within one small file.
std::string hostileCore(const qurn::inspection::Record& record) {
  std::string core = testing::TempDir() + "hostile-" + std::to_string(getpid());
  std::vector<Elf64_Phdr> parts(60000, {PT_LOAD, PF_W, 0, 0, 0, 1U << 26U, 1U << 26U, 0});
  for (size_t i = 0; i < parts.size(); ++i) {
    parts[i].p_vaddr = i << 12U;
  }
  Elf64_Ehdr header{};
  std::ifstream("/proc/self/exe").read(reinterpret_cast<char*>(&header), sizeof(header));
  header.e_type = ET_CORE;
  header.e_phoff = sizeof(header) + sizeof(record);
  header.e_phnum = static_cast<Elf64_Half>(parts.size());
  std::ofstream file(core);
  file.write(reinterpret_cast<const char*>(&header), sizeof(header));
  file.write(reinterpret_cast<const char*>(&record), sizeof(record));
  file.write(reinterpret_cast<const char*>(parts.data()),
             static_cast<std::streamsize>(parts.size() * sizeof(parts[0])));
  file.close();
  std::filesystem::resize_file(core, size_t{1} << 26U);
  return core;
}

TEST(InspectionOfACore, RefusesAHostileOneInTime) {
  if (kEmulated) {
    GTEST_SKIP() << "an emulator has cores of its own";
  }
  qurn::inspection::Record none{};
  qurn::inspection::Record later{};
  later.magic = qurn::inspection::kMagic;
  later.version = qurn::inspection::kVersion + 1;
  qurn::inspection::Record damaged = later;
  damaged.version = qurn::inspection::kVersion;
  for (const auto& [record, says] : {std::pair{none, "no libqurnadapt in"},
                                     {later, "has layout 2, known is 1"},
                                     {damaged, "damaged"}}) {
    const std::string core = hostileCore(record);
    const Program hostile{QURN_INSPECT " " + core, 2, says};
    expectOne(hostile, runProgram(hostile.command, 20));
    std::filesystem::remove(core);
  }
}

}  // namespace
