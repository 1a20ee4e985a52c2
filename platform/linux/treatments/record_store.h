#pragma once

#include <string>
#include <system_error>
#include <vector>

#include "treatments/control_groups.h"
#include "treatments/treatment_record.h"

namespace KITE::Linux {

// The records of the treated processes, a file for each in the run directory. One process and thread at a
// time.
class RecordStore {
  public:
    explicit RecordStore(const std::string& runDirectory);

    // Saves what is going to be done, and makes it the record. It must be on disk before it is done, since
    // the next start must be able to undo it. An error line when it cannot be written.
    std::error_code Plan(TreatmentRecord& record, TreatmentRecord planned) const;
    // The file has the new content or stays as it was.
    std::error_code Write(const TreatmentRecord& record) const;
    std::error_code Remove(const TreatmentRecord& record) const;

    struct Left {
        std::vector<TreatmentRecord> records;
        bool areAll = true;  // no file was unusable
    };
    // All records. One error line for each file that cannot be used: one that holds no record is renamed to
    // ".NAME.bad", so that it can still be looked at; one that may hold a record stays, when it cannot be
    // read now or its groups are not those of this machine's mounts. There are none in another user's folder.
    Left ReadAll(const Cgroups& cgroups) const;

  private:
    const std::string path_;
};

}  // namespace KITE::Linux
