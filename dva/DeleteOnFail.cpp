#include "dva/DeleteOnFail.h"

#include <sys/stat.h>
#include <unistd.h>

namespace zub {

CDeleteOnFail::~CDeleteOnFail()
{
    if (path_.empty()) return;
    struct stat st {};
    if (stat(path_.c_str(), &st) == 0 && S_ISREG(st.st_mode)) unlink(path_.c_str());
}

}  // namespace zub
