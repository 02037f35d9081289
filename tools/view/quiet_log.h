// The view reads the board through the library, which logs what it reads
// ("Read gear value: 0"). A person watching the board's log wants the
// board's records, not the view's: reads made under a QuietLog leave none.
#ifndef VEXA_VIEW_QUIET_LOG_H
#define VEXA_VIEW_QUIET_LOG_H

namespace vexa::view {

// While one lives, this thread's log records are dropped.
class QuietLog {
public:
    QuietLog();
    ~QuietLog();
    QuietLog(const QuietLog &) = delete;
    QuietLog &operator=(const QuietLog &) = delete;

private:
    bool was_;
};

} // namespace vexa::view

#endif
