#pragma once

#include <string>

/// Owner of an opened i2c-dev bus device. Used by one thread at a time.
class I2C {
public:
    /// Opens `device` for reading and writing. A failure is reported and leaves `fd` negative.
    explicit I2C(std::string device);
    virtual ~I2C();

    I2C(const I2C&) = delete;
    I2C& operator=(const I2C&) = delete;

    /// The bus device; negative when it did not open. Owned: callers test it and do not change it.
    int fd;
};
