// Configuration files: whatever they hold, the stand-in answers and the library takes or refuses
// it.
#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>

#include "fuzz_target.h"

void tryInput(Bytes bytes) {
  const std::string path = fileWith(bytes.text());
  void* yaml = TovYamlLoadFile(path.c_str());
  if (yaml == nullptr) {
    return;
  }
  for (const char* key : {"watchDog", "watchDog.watchDogType", "exception.signalIgnore",
                          "exception.signalIgnore[0]", "a.b[1].c"}) {
    const char* text = TovYamlGetProperty(yaml, "%s", key);
    assert(text == nullptr || TovYamlIsKeyExist(yaml, key));
    assert(text == nullptr || TovYamlGetArraySize(yaml, "%s", key) == 0);
  }
  static_cast<void>(FrameKeepAliveParamInit(yaml));
  TovYamFreelHandle(yaml);
}
