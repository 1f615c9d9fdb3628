#include "boardSupport/i2c.h"

#include <fcntl.h>
#include <unistd.h>

#include "support/diagnostics.h"
#include "support/fileDescriptor.h"

I2C::I2C(std::string device)
    : fd(qwk::retryOnInterrupt([&] { return open(device.c_str(), O_RDWR | O_CLOEXEC); })) {
    if (fd < 0)
        qwk::report(LOG_ERR, "Error opening I2C Device: %s", device.c_str());
}

I2C::~I2C() {
    if (fd >= 0)
        static_cast<void>(close(fd));
}
