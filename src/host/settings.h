// Settings store: the launcher's and dialogs' remembered values, as text and 32-bit values
// under a section name. Two layers are consulted in the same precedence on every read:
// the user profile file first, then the "registry" (the current user's store, then the
// machine-wide one), which wins when it holds the value in a form that fits.
//
// Files (INI style, one [section] per tool area):
//   profile      $XDG_CONFIG_HOME/ornisworks/profile.ini      (~/.config when unset)
//   current user $XDG_CONFIG_HOME/ornisworks/registry.ini
//   machine      each dir of $XDG_CONFIG_DIRS (/etc/xdg) + /ornisworks/registry.ini
#pragma once
#include <cstddef>
#include <cstdint>

inline constexpr const char* SettingsMainSection = "ORN Video Tools";

// Reads a text value into dest (always zero-terminated). Returns the length stored.
size_t SettingsReadText(const char* section, const char* name, char* dest, size_t destSize,
                        const char* defaultText);
// Reads a 32-bit value; a registry value is taken only when it holds exactly 4 bytes.
uint32_t SettingsReadInt(const char* section, const char* name, uint32_t defaultValue);
// Writes to the current user's store, and to the profile file too when `alsoProfile`.
bool SettingsWriteText(const char* section, const char* name, const char* text, bool alsoProfile);
bool SettingsWriteInt(const char* section, const char* name, uint32_t value, bool alsoProfile);
