#ifndef _WIN32
#include "tests/support/MessageBoxWatch.h"

#include "platform/host/ControlMessageBox.h"
#include "tests/support/ProgressRecorder.h"

namespace TestSupport
{
struct MessageBoxWatch::State
{
    size_t shownBefore;
};

MessageBoxWatch::MessageBoxWatch(int firstAnswer) : m_state(new State{VmHost::MessageBoxes().size()})
{
    if (firstAnswer)
        VmHost::QueueMessageBoxAnswer(firstAnswer);
}
MessageBoxWatch::~MessageBoxWatch()
{
    delete m_state;
}

std::vector<SeenMessageBox> MessageBoxWatch::Seen() const
{
    std::vector<SeenMessageBox> seen;
    std::vector<VmHost::MessageBoxRecord> boxes = VmHost::MessageBoxes();
    for (size_t i = m_state->shownBefore; i < boxes.size(); ++i)
        seen.push_back(
            {Narrow(boxes[i].caption.c_str()), Narrow(boxes[i].text.c_str()), boxes[i].owner, boxes[i].type});
    return seen;
}
} // namespace TestSupport
#endif
