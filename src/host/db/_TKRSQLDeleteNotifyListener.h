// Delete notification: before rows of a table are deleted through the data layer, every live
// TKRSQLDeleteNotifyListener is asked. A listener may declare rows of other tables, linked by a
// field to the deleted rows, as deleted with them; those rows are deleted first, in the same
// transaction as the rows themselves (and are notified in turn).
//
// Listeners register process-wide for their lifetime; the registry is thread-safe. A listener's
// handler runs on the thread that deletes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "_Classes.h"

namespace docadmin {

class IKRSQLDeleteNotify {
  public:
    // Whether the notification can be answered by naming dependent rows. It can for deletes by
    // statement and record set; it can't when the caller deletes without dependents.
    virtual bool CanDeclareDependents() = 0;
    // Whether the notification concerns this table (SQL table name, case-insensitive).
    virtual bool IsTable(const std::string& ASQLTableName) = 0;
    // Rows of ASQLTableName whose AFieldName holds the key of a deleted row go with them.
    virtual void AddDependentRows(const std::string& ASQLTableName,
                                  const std::string& AFieldName) = 0;
    // Called by a listener when CanDeclareDependents answered false: the listener has nothing to
    // add, and the delete goes on without dependents.
    virtual void NoDependentsDeclared() = 0;

  protected:
    ~IKRSQLDeleteNotify() = default;
};

class TKRSQLDeleteNotifyListener : public TComponent {
  public:
    using TDeleteNotifyEvent = std::function<void(TObject* Sender, IKRSQLDeleteNotify* AEvent)>;

    explicit TKRSQLDeleteNotifyListener(TComponent* AOwner);
    ~TKRSQLDeleteNotifyListener() override;

    TDeleteNotifyEvent OnExecute;

    // Asks every live listener (for the layer's delete path).
    static void NotifyAll(IKRSQLDeleteNotify* AEvent);
};

}  // namespace docadmin
