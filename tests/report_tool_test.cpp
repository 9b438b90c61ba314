// The reader of reports, as a user runs it: over logs that the example host wrote, in whole and in
// pieces, and over one that it is writing.
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "support/run_program.h"

#define REPORT QURN_EMULATOR QURN_REPORT " "

namespace {

// What it prints of the log that the shell's commands make of the recorded ones, for people and for
// machines.
void expectGolden(const std::string& name, const std::string& log,
                  const std::string& options = "") {
  const std::string piped = "cd " GOLDEN " && (" + log + ") | " REPORT + options;
  expectAll({{piped + "| diff " + name + ".txt -", 0, ""},
             {piped + "--json /dev/stdin | diff " + name + ".json -", 0, ""}});
}

TEST(Report, TellsWhatTheLogTells) {
  expectGolden("whole", "cat loop.log");
  expectGolden("mixed", R"(paste -d "\n" loop.log hook.log)");
  // Both hooks, and an end that is not the watch's; then another dead loop after a recovery.
  expectGolden("hooks", R"((sed "/hook start/{p;s/process hook/process global hook/}
                                 /hook end/s/Frame.*/ZOT_Exit with code 3. (process id = 5)/" hook.log
                            sed "/first threshold timeout/p" loop.log) |
                           sed "s/tovDeadloopTask:[0-9]*/tovDeadloopTask:50/")");
  expectGolden("incomplete", R"(printf "\377"; sed "1,/send to thread/d" loop.log
                                sed "/ZOT_Exit/d" loop.log
                                sed "/ #3 /q" loop.log
                                sed "/send to thread/q" loop.log
                                sed "/send to thread/{p;s/\.$/ unsuccessfully./;q}" hook.log)");
  expectGolden("strange_frames", R"(sed "/ #1 /{h;s/#1/#7/p;s/#7/#x/p;g}
                                         s/#1 [^+]*/#1 _ZN3svc4spinEv/
                                         s/#2 .*/#2 main./
                                         s/#3 .*/#3 \x1b[2Jevil./
                                         s/#4 .*/#4 0x12z./
                                         s/#5 .*/#5 \xff./" loop.log)");
  expectGolden("other_prefixes",
               R"(sed "s/ /T/; s/\./,/; s/tovDeadloopTask://; s/^/abcd-ef-gh ij:kl:mn /" loop.log
                                    sed "s/\.[0-9]* / 42 /" loop.log
                                    sed "s/^.*:[0-9]* \([FTSZC]\|#\)/ \1/" hook.log)");
}

// What it prints is another recorded log's, once times are written as in that one.
void expectSame(const std::string& name, const std::vector<std::string>& logs) {
  std::vector<Program> programs(logs.size());
  std::transform(logs.begin(), logs.end(), programs.begin(), [&](const std::string& log) {
    std::string command = "cd " GOLDEN " && (" + log + ") | " REPORT;
    command.append(R"(| sed "s/T\(..:..:..\....\)[0-9]*[Z+:0-9]*/ \1/" | diff )");
    return Program{command.append(name).append(".txt -"), 0, ""};
  });
  expectAll(programs);
}

TEST(Report, IsTheSameWhateverStandsBeforeTheLine) {
  std::vector<std::string> logs;
  for (const std::string prefix :
       {"2026-11-26T07:59:26+0100 alpha qurn-host[1]: ", "Nov 26 06:59:26.123456 alpha qurn[1]: ",
        "alpha_1  | ", "2026-11-26T06:59:26.123456789Z stderr F ",
        "[pod\\/a-1\\/app] 2026-11-26T06:59:26.123456789Z ", "<13>Nov  6 06:59:26 alpha qurn: ",
        "<13>1 2026-11-26T06:59:26.1+01:00 alpha app 1 - [m@1 a=b] "}) {
    logs.push_back("sed \"s/^/" + prefix + "/\" loop.log");
  }
  // More times and words than anybody writes, some of them other ones in each line.
  logs.emplace_back(
      R"(perl -pe "s/^/q{<< 2026-11-26T06:59:26Z a 2026-11-26T06:59:} . (10 + \$. % 50) .
                                     q{Z b } . q{2026-11-26T06:59:26Z c } x 9/e" loop.log)");
  logs.emplace_back(
      R"x(sed "s/.*/{\"log\":\"&\\\\n\",\"stream\":\"a\",\"time\":\"\"}/" loop.log)x");
  // A thread's name may hold what looks like a message, or like the end of a prefix.
  for (const std::string thread :
       {"worker #1", "Signal Proc", "#1 ", "] 0 a:1 #1 f", "x:1] 0 a:1 #1 "}) {
    logs.push_back("sed \"s/tovDeadloopTask/" + thread + "/\" loop.log");
  }
  // Without the log's own head.
  for (const std::string prefix :
       {R"(\1T\2Z )", R"(\1T\2Z qurn: )", R"(\1T\2123+01:00 alpha qurn[1]: )",
        R"(<14>1 \1T\2Z alpha qurn 1 kind - )", R"(<9>1 \1T\2Z a b 1 - - \xef\xbb\xbf)",
        R"(alpha_1  | \1T\2123456Z )", R"(\1T\2Z stderr F )", R"([pod\/a\/b] \1T\2Z )"}) {
    logs.push_back(R"(sed -n "s/^\(....-..-..\) \(..:..:..\....\) .* 0 [^ ]*:[0-9]* /)" + prefix +
                   R"(/p" loop.log)");
  }
  expectSame("whole", logs);
  expectAll({{"cd " GOLDEN R"(; sed "s/worker-2/] trigger third/" loop.log | )" REPORT
              R"(| sed "s/. trigger third/worker-2/" | diff whole.txt -)",
              0, ""}});
}

TEST(Report, TellsWritersApartThatHaveTheSameIds) {
  expectSame("mixed", {R"(paste -d "\n" loop.log hook.log |
                            sed "s/24681/24685/; 1~2s/^/alpha_1  | /; 2~2s/^/beta_1   | /")",
                       "cat mixed.journal.json", "cat mixed.export"});
}

// Two units in two boots, in a journal that the system's own tools make.
TEST(Report, ReadsAJournal) {
  const std::string journal = testing::TempDir() + "journal" + std::to_string(getpid());
  const auto make = [](const std::string& file, const std::string& pids,
                       const std::string& change) {
    return "(cd " GOLDEN "; for pid in " + pids +
           R"(; do perl -00 -ne "print if /_PID=$pid/" mixed.export; done |
              perl -00 -pe "s/^_PID=(.*)/_SYSTEMD_UNIT=svc\$1.service\n_TRANSPORT=journal\n\$&/m;
                s/^_PID=(.*)/qq{_BOOT_ID=\$1} . 0 x 27 . qq{\n__MONOTONIC_TIMESTAMP=1\n\$&}/me;)" +
           change + R"(" | /lib/systemd/systemd-journal-remote -o )" + file + " - 2>&1)";
  };
  ASSERT_EQ(runProgram("mkdir -p " + journal + "/small; " +
                       make(journal + "/a.journal", "24670 24671", "") + " && " +
                       make(journal + "/small/a.journal", "24670", ""))
                .status,
            0);
  const std::string read = REPORT "--journal-dir " + journal;
  const auto same = [&](const std::string& options, const std::string& name) {
    return Program{"cd " GOLDEN "; " + read + options +
                       R"(| sed "s/T\(..:..:..\....\)[0-9]*[Z+:0-9]*/ \1/" | diff )" + name +
                       ".txt -",
                   0, ""};
  };
  // Later ones, with lines that were cut beside fields that were not.
  const std::string more =
      R"(s/^(__REALTIME_TIMESTAMP=)(\d+)/\$1 . (\$2 + 3600_000_000)/me;
         s/^MESSAGE=#(\d) (.*)\.\$/MESSAGE=#\$1 s\nQURN_FRAME_NUMBER=\$1\nQURN_FRAME=\$2/m;
         s/(timeout\.\()elapsed time = (\d+).*/\$1\nQURN_SILENCE_MS=\$2/)";
  expectAll({same("", "mixed"),
             same(" --journal=svc24670", "whole"),
             same(" --journal=svc24670.service --since 2026-11-26T06:59:26.7Z", "whole"),
             same(" --boot=-1", "whole"),
             same(" --boot=24670000000000000000000000000000", "whole"),
             {read + " --until 2026-11-26T06:59:26.7Z", 1, ""},
             {read + " --boot=-2", 2, "does not reach back"},
             {read + " --boot=x", 2, "no boot"},
             {read + " " GOLDEN "/loop.log", 2, "either the journal"},
             {REPORT "--json --journal-dir " GOLDEN, 2, "there is no journal ... []"},
             {REPORT "--journal-dir /nowhere", 2, "cannot read the journal"},
             {"(sleep 0.5; " + make(journal + "/small/b.journal", "24671", more) + ") & " + read +
                  "/small --follow | sed -u /enter_a_loop_with/q",
              0,
              "process 24670 ... process 24671 ... silent for 3.2 s ... third threshold, ? ... "
              "#0   spin_until_rescued+0xf\n ... enter_a_loop_with_a_hook+0x26"}});
  runProgram("rm -r " + journal);
}

// Each costs what it held and no more.
TEST(Report, TellsWhatLostAndCutLinesHeld) {
  expectSame("lost", {R"(for line in "first threshold t" "third threshold t" "is captured" \
                                     "Captured process" " #[12] " " #" "Task(" "ZOT_Exit"
                         do sed "/$line/d; / #[45] /d" loop.log; done)"});
  expectSame("cut", {R"(for line in "third threshold t" "is captured" "Captured process" " #2 "
                        do sed "/$line/s/.\{13\}\$//; / #[3-5] /d; /Task(/q" loop.log; done)"});
  expectGolden("torn", R"(sed "/third threshold t/s/(.*//; /Captured/s/0\.\$//; / #1 /d; /Task(/d
                               / #2 /s/\.\$/ ... (cut)/; / #[3-5] /d" loop.log
                          sed "1,/third threshold t/s/(.*//; /Exit/s/8\. .*//; / #/d" loop.log)");
  // A record in the journal whose length is wrong.
  expectAll({{R"((printf "__CURSOR=1\nMESSAGE\n\377\377\377\377\377\377\377\377x\n\n"
                  cat )" GOLDEN "/loop.log) | " REPORT,
              0, "worker-2"}});
}

// A directory of this test's own, with the recorded logs in it.
std::string directoryWithLogs(const std::string& name) {
  const std::string directory = testing::TempDir() + name + std::to_string(getpid());
  runProgram("rm -rf " + directory + "; cp -r " GOLDEN " " + directory);
  return "cd " + directory + R"( && trap "rm -rf $PWD" EXIT && )";
}

TEST(Report, GroupsDeadLoopsByWhereTheyAreStuck) {
  // Elsewhere; twice, once of it behind a lock; without names; not captured.
  const std::string log = R"(sed "/ #[345] /d" hook.log; sed "/ #[345] /d" loop.log
                             sed "/ #[345] /d; s/ #2 / #3 /; s/ #1 / #2 /; s/ #0 / #1 /
                                  s/0x11\./0x99./; s/worker-2/worker-3/; s/= 3195/= 4195/
                                  / #1 /{h; s/#1 .*/#0 pthread_mutex_lock+0x5./; G}" loop.log
                             sed "s/#\([0-2]\) .*/#\1 0x1\1./; / #[345] /d" loop.log
                             sed "/send to thread/q" loop.log)";
  expectGolden("group", log, "--group ");
  expectAll({{"cd " GOLDEN " && (" + log + ") | " REPORT "--collapsed", 0,
              "qurn-host;worker_main;enter_a_loop;spin_until_rescued 1\n ... "
              "spin_until_rescued;pthread_mutex_lock 1\n"},
             // Under the C library or not is one place, functions with such names are several.
             {directoryWithLogs("inner") +
                  R"(for inner in memcpy+0x1 fgets+0x1 _ZNSt5mutex4lockEv+0x1 0x1 epoll_a sem_b
                 do printf "Captured process: a;b, pid: 1.\n#0 $inner.\n#1 g+0x1.\n"; done >inner
                 )" REPORT "--group inner | grep dead; " REPORT "--collapsed inner",
              0, "4 dead loops\n1 dead loop\n1 dead loop\na:b;g;0x1 1\n"},
             {"cd " GOLDEN
              R"( && (sed "s/worker-2/\xfe/" loop.log; sed "s/worker-2/\xff/" loop.log) | )" REPORT
              "--group --json",
              0, R"("\\xfe": 1 ... "\\xff": 1)"},
             {REPORT "--collapsed --json " GOLDEN "/loop.log", 2, "a form of its own"}});
}

TEST(Report, ReadsWhatWasRotatedAndPackedAsOneLog) {
  const std::string parts = directoryWithLogs("parts") + R"(
    mkdir d e f && sed "8q" loop.log | gzip >d/x.log.2.gz && sed "1,8d; 13q" loop.log >d/x.log.1 &&
    sed "1,13d" loop.log >d/x.log && cp d/x.log e && cp d/x.log.1 e/x.log-20261126 &&
    cp d/x.log.2.gz e/x.log-20261125-235959.gz && cp d/x.log f && cp d/x.log.1 f/x.1.log &&
    gunzip <d/x.log.2.gz >f/x.2.log && sed "5q" loop.log >f/y.3.log && sed "1,5d" loop.log >f/y.2.log
    cp hook.log f/h.log && ln -s y.2.log f/new && touch -d "1 hour ago" f/h.log && touch -d "2 hours ago" f/x.2.log
    for logs in d e "d/x.log d/x.log.1 d/x.log.2.gz" loop.log.zst
    do )" REPORT R"($logs | diff whole.txt -; done
    cat d/x.log.2.gz d/x.log.1 d/x.log | )" REPORT R"(| diff whole.txt -
    )" REPORT R"(f f/y.2.log | sed -n "s/ in .*//; /^Dead.*-2/p"; )" REPORT
                                                         "--group /nonexistent d hook.log";
  expectAll({{parts, 2,
              "(24683)\nDead loop of thread worker-2 (24687)\nDead loop of thread worker-2\n"
              "Dead loop of thread worker-2 (24687)\n ... read /nonexistent: No such file ... 1 "
              "dead loop ... "
              "1 dead",
              "<"}});
}

TEST(Report, TellsWhatCouldBeReadOfADamagedArchive) {
  const auto damaged = [](const std::string& damage) {
    return "cd " GOLDEN " && (" + damage + ") | " REPORT R"(--json; echo "$?")";
  };
  const std::string packed = "cat loop.log hook.log loop.log | gzip -1 | ";
  const std::string one = R"( ... status": 88 ... ]
2)";
  expectAll(
      {{damaged(packed + "head -c 500"), 0, "input: ends before its archive does ... ]\n2"},
       {damaged(packed + "(head -c -8; echo 12345678)"), 0,
        "status\": 88 ... input: incorrect data check ... \"thread_hook\": true" + one},
       {damaged(R"(printf "\3757zXZ"; cat loop.log)"), 0, "neither gzip nor zstd ... []\n2"},
       {damaged("printf BZh1; cat loop.log"), 0, "neither gzip nor zstd ... []\n2"},
       {damaged(R"(printf "\377\376"; cat loop.log)"), 0, "not UTF-8 ... []\n2"},
       {damaged(R"(printf "\357\273\277"; cat mixed.journal.json)"), 0, "88 ... ]\n0", "the first"},
       {damaged("cat loop.log.zst; cat hook.log"), 0, "88 ... \"thread_hook\": true ... ]\n0"},
       {damaged("cat loop.log.zst; head -c 300 loop.log.zst"), 0,
        "status\": 88 ... input: ends before its archive does ... ]\n2"},
       {damaged("cat loop.log.zst; head -c 300 loop.log.zst; head -c 99999 /dev/zero"), 0,
        "status\": 88 ... standard input: ... ]\n2"}});
}

TEST(Report, TellsOnlyWhatWasAskedFor) {
  // At 06:59:26.711, 26.711 and without a time.
  const std::string logs = "cd " GOLDEN R"( && (cat loop.log hook.log
                             sed "s/^.*:[0-9]* \([FTSZC]\|#\)/\1/; s/worker-2/w/" hook.log) | )";
  const auto told = [&](const std::string& options, const std::string& count) {
    return Program{logs + "TZ=QRN-1 " REPORT + options + R"( | grep -c "Dead loop"; true)", 0,
                   count + "\n"};
  };
  expectAll({told("--since \"2026-11-26 06:59:26\"", "3"),
             told("--since 2026-11-26T07:59:26.5+01 --until 2026-11-26T07:00Z", "3"),
             told("--since 2026-11-26T06:59:26-0100", "1"),
             told("--until 2026-11-26", "1"),
             told("--since -3650d --until 2126-01-01", "3"),
             told("--since -999999999d", "3"),
             told("--until -3650d", "1"),
             told("--process 24670 --process none", "1"),
             told("--process qurn-host --thread w", "1"),
             told("--thread 2468", "0"),
             {REPORT "--since 2026-13-01", 2, "no time: 2026-13-01"},
             {REPORT "--since 2026-02-29", 2, "no time: 2026-02-29"},
             {REPORT "--until -2y", 2, "no time"}});
}

TEST(Report, FollowsALogThatGrowsAndIsRotatedAndTruncated) {
  const std::string follow = directoryWithLogs("follow") + R"(
    told() { until test $(grep -c $1 told) = $2; do sleep 0.1; done; }
    (cat loop.log; sed 11q loop.log) >x; )" REPORT R"(--follow --json x >told &
    told status.:88 1; mv x x.1; sed "1,11d; 14q" loop.log >>x.1
    (sed 1,14d loop.log; cat loop.log loop.log) >x; told status.:88 4
    cat hook.log >x; told thread_hook.:true 1
    kill -INT $!; wait $!; echo ended $?; grep -c "missing.:\[\]" told
    cat loop.log | )" REPORT R"(--follow | diff whole.txt - &&
    (sleep 3; cat loop.log) | )" REPORT R"(--follow >/dev/full; echo $?)";
  expectAll({{follow, 0, "ended 0\n5\n ... cannot write all of it\n2\n"},
             {REPORT "--follow --group", 2, "does not come to the end"}});
}

// A hook leaves a report open, which holds up so many others and no more.
TEST(Report, KeepsTheOrderOfTheBeginningsWithoutKeepingEverything) {
  const std::string others = directoryWithLogs("order") + R"(sed "s/^/host qurn[1]: /" loop.log >x
    (cat hook.log; yes x | head -n 1500 | xargs cat; until test -s told; do sleep 0.1; done) | )";
  expectAll({{others + REPORT R"(>told; sed -n "/^Dead/p" told | uniq -c)", 0,
              "1 Dead loop of thread worker-2 (24683) ... 1500 Dead loop"}});
}

// Of many processes with many silent threads each, and of addresses that are all different.
TEST(Report, KeepsLittleOfWhatItReads) {
  if (kEmulated || sizeof(QURN_SANITIZE) > 1) {
    GTEST_SKIP() << "what else lies in memory is larger";
  }
  const std::string limited = "ulimit -v 150000; awk \"BEGIN { for (i = 0; i < 400000; ++i) ";
  const std::string silence = R"(printf \"2026-11-26T06:59:26Z a qurn[%d]: Frame task deadloop )"
                              R"(detect, task [w:%d] trigger first\n\", i / 1000, i % 1000 }" | )";
  const std::string address =
      R"(printf \"%s#%d 0x%x.\n\", i % 32 ? \"\" : \"Captured process: a, pid: 1.\n\", i % 32, i }" | )";
  expectAll(
      {{limited + silence + REPORT, 1, ""},
       {limited + address + REPORT "--base 7f0000000000 --program " QURN_REPORT " | tail -n 1", 0,
        "#31"}});
}

TEST(Report, IsHarmlessToATerminalWhateverALogHolds) {
  const std::string odd =
      "cd " GOLDEN R"( && sed "s/worker-2/a\xc2\x9b\x7f\xff\xe2\x82\xac\xef\xbf\xbf\xed\xa0\x80/
                                    s/time = 1203/time = 4294967295/; s/time = 3195/time = 0/
                                    s/time = 2195/time = 4294967296/" loop.log | )" REPORT;
  expectAll({{odd + "| head -n 4", 0,
              R"(thread a\xc2\x9b\x7f\xff€\xef\xbf\xbf\xed\xa0\x80 (24687) in ... )"
              R"(4294967.3 s ====================  first ... for ?   ... 0.0 s ... third)",
              "====================="},
             {odd + "--json | head -n 6", 0, R"("thread": "a\u009b\u007f)"}});
}

TEST(Report, EndsAsItsHelpSays) {
  expectAll({{REPORT "--help", 0, "Usage: qurn-report"},
             {REPORT GOLDEN "/loop.log", 0, "Dead loop of thread worker-2"},
             {REPORT "</dev/null", 1, ""},
             {REPORT "/nonexistent/log", 2, ""},
             {REPORT "--program /nonexistent/program </dev/null", 2, ""},
             {REPORT "--base zz </dev/null", 2, ""},
             {REPORT "--maps /nonexistent/maps </dev/null", 2, ""},
             {REPORT "--nonsense", 2, "Usage: qurn-report"},
             {directoryWithLogs("escapes") + R"(name=$(printf "\033[m"); ln -s "$name" "$name"; )" +
                  REPORT R"("$name" loop.log)",
              2, R"(read \x1b[m: Too many ... Dead loop)"},
             {REPORT "a b", 2, ""}});
}

}  // namespace
