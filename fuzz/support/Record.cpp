#include "Record.h"

namespace fuzzsupport {

void Record::clearEvents()
{
    published.clear();
    removed.clear();
    duplicateAdds = 0;
    callbacksPassed = 0;
    commands.clear();
    files.clear();
    sent.clear();
    sleepsMs.clear();
}

void Record::clearAll()
{
    clearEvents();
    states.clear();
    fetches.clear();
    nextFetchId = 1;
    commandStatus = 0;
    filesWritable = true;
}

Record& record()
{
    static Record theRecord;
    return theRecord;
}

}  // namespace fuzzsupport
