// The time services' shell and files in the fuzz targets: the sync manager
// takes its runner from systemRunner() and writes its one-line files through
// writeServiceFile(), so linking these in place of the production ones makes
// every script a recorded command line and every file a recorded text. No
// script runs and nothing under /var/run is touched while fuzzing.
#include "sync/CommandRunner.h"

#include "Record.h"

namespace orv::tsd {

namespace {

class RecordingRunner : public CommandRunner
{
public:
    int run(const std::string& command) override
    {
        fuzzsupport::Record& r = fuzzsupport::record();
        r.commands.push_back(command);
        return r.commandStatus;
    }
};

}  // namespace

CommandRunner& systemRunner()
{
    static RecordingRunner runner;
    return runner;
}

bool writeServiceFile(const char* path, const std::string& text)
{
    fuzzsupport::Record& r = fuzzsupport::record();
    r.files.push_back({path, text});
    return r.filesWritable;
}

}  // namespace orv::tsd
