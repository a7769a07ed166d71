#ifndef ENGINE_KYFLAGFILES_H
#define ENGINE_KYFLAGFILES_H

/// The files by which the rest of the card learns of the USB transport. They are empty; only whether they exist
/// counts. Their directory is not created. A failure is logged.
namespace ky_engine {

/// "/var/tmp/dmp/dmp_supported"
void SetDmpSupported(bool supported);

/// "/var/tmp/dmp/usb_force_fs": the device has full speed or less.
void SetForceFullSpeed(bool force);

}  // namespace ky_engine

#endif
