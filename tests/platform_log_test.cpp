// The stand-in platform's log, as it is read at its destinations, and what is kept with a report.
#include <string>

#include "support/run_program.h"

namespace {

// The log's destination is fixed when a program is loaded, so each case is a process.
const std::string kLines = QURN_EMULATOR LOG_LINES;

// What is different each time is taken out of the lines.
std::string asKnown(const std::string& command, const std::string& known) {
  return "(" + command + R"() 2>&1 | sed -E "s/[0-9]{4}(-[0-9]{2}){2}T[0-9:]{8}[.][0-9]{3}Z /at /
                          s/\[)" +
         processName("log_lines") + R"(:[0-9]+\]/[log_lines]/
                          s/b:[0-9]+\]/b]/
                          s/(x|[\]x1b){20,}/.../
                          s/^(TID|THREAD_NAME)=.*/\1=/
                          s/(management_stand_in:| log:)[0-9]+/\1/" | diff )" GOLDEN "/" +
         known + " -";
}

TEST(Log, WritesALineAMessageDropsRepeatsAndIsRotated) {
  expectAll(
      {{asKnown(kLines +
                    " 2>&1 | head -n 5; for level in warning Warning NONE \"\" error OFF; do "
                    "echo $level:; TOV_LOG_LEVEL=$level " +
                    kLines +
                    " report; done; "
                    "TOV_LOG_TARGET=paper TOV_LOG_FILE_BYTES=10k TOV_LOG_FILES=100 "
                    "TOV_LOG_TARGTE=syslog TOV_LOG_NONE= " +
                    kLines + " odd; " + kLines + " deaf",
                "log.txt"),
        0, ""},
       // By way of a file: a pipe's reader that gets no processor for long costs lines.
       {"d=$(mktemp); " + kLines +
            R"( 2>$d; awk "/ again/ {again++} / report/ {report++} / different/ {different++}
                                /identical lines dropped/ {sub(/.*\(/, \"\"); dropped += \$1}
                                END {print again + dropped, report, different, (dropped > 0), (again > 199)}" $d; rm $d)",
        0, "1000 1000 300 1 1\n"},
       {"d=$(mktemp -d); TOV_LOG_FILE_BYTES=10000 TOV_LOG_TARGET=file:$d/log " + kLines +
            "; cd $d; find . -size +10000c; echo *; rm -r $d",
        0, "log log.1 log.2 log.3 log.4 log.5\n", "unit ... ./log"},
       {"d=$(mktemp -d); TOV_LOG_FILES=1 TOV_LOG_FILE_BYTES=10000 TOV_LOG_TARGET=file:$d/log " +
            kLines + "; ls $d; rm -r $d",
        0, "log\nlog.1\n", "log.2"},
       {kLines + " terminal", 0, ""},
       {"{ { sleep 0.5; " + kLines + "; echo status $? >&3; } 2>&1 | true; } 3>&1", 0, "status 0"},
       {"d=$(mktemp); " + kLines + " full 2>$d; cat $d; rm $d", 0,
        " lines lost: nobody took them)\n ... room again"},
       {"cd $(mktemp -d); TOV_LOG_TARGET=file:log " + kLines + " full; cat log; echo *; rm -r $PWD",
        0, " lines lost: nobody took them)\n ... room again\nlog\n"},
       {"cd $(mktemp -d); TOV_LOG_TARGET=file:log " + kLines +
            " daemon; cat log; ls | wc -l; rm -r $PWD",
        0, "0 elsewhere ... before\n ... is captured ... \n3\n"},
       {"d=$(mktemp -d); mkfifo $d/log; TOV_LOG_TARGET=file:$d/log " + kLines + "; rm -r $d", 0,
        "logging to standard error\n ... information 1"},
       {"TOV_LOG_TARGET=file:/dev/null/log " + kLines, 0,
        "logging to standard error\n ... information 1"}});
}

TEST(Log, GivesTheJournalFieldsAndNeverWaitsForIt) {
  const std::string command = "TOV_LOG_TARGET=journal " + kLines + " journal";
  if (runProgram(command).has("no namespaces here")) {
    GTEST_SKIP();
  }
  expectAll({{asKnown(command, "journal.txt"), 0, ""}});
}

// As many as are kept, and the build id that the program itself has. What else lies there stays,
// and data is not looked at.
TEST(Log, KeepsTheMemoryMapOfAReport) {
  expectAll(
      {{"export RUNTIME_DIRECTORY=$(mktemp -d); (cd $RUNTIME_DIRECTORY; echo >2024-notes.maps; "
        "mkdir $(seq -f %g.maps 20); touch -d 2020-01-01 *); for i in $(seq 20); do " +
            kLines +
            " report 2>/dev/null; done; cd $RUNTIME_DIRECTORY; ls | wc -l; "
            "for id in *.build-ids; do grep -c tovplatform ${id%.build-ids}.maps >/dev/null && "
            "grep -q \"^$(readelf -n " LOG_LINES
            " | sed -n \"s/.*Build ID: //p\") \" $id && echo same; "
            "sort $id | uniq -d; done | sort | uniq -c; rm -r $RUNTIME_DIRECTORY",
        0, "53\n ... 16 same", "/log_lines"}});
}

}  // namespace
