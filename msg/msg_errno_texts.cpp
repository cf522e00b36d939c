// glibc's descriptions of the Linux error numbers, so that msg_errno can
// describe an error without the catalogue and without calling strerror.
#include "msg/msg_format.h"

constinit const std::array<const char*, 257> msg_errno_texts{{
    "Success",                                            // 0
    "Operation not permitted",                            // 1
    "No such file or directory",                          // 2
    "No such process",                                    // 3
    "Interrupted system call",                            // 4
    "Input/output error",                                 // 5
    "No such device or address",                          // 6
    "Argument list too long",                             // 7
    "Exec format error",                                  // 8
    "Bad file descriptor",                                // 9
    "No child processes",                                 // 10
    "Resource temporarily unavailable",                   // 11
    "Cannot allocate memory",                             // 12
    "Permission denied",                                  // 13
    "Bad address",                                        // 14
    "Block device required",                              // 15
    "Device or resource busy",                            // 16
    "File exists",                                        // 17
    "Invalid cross-device link",                          // 18
    "No such device",                                     // 19
    "Not a directory",                                    // 20
    "Is a directory",                                     // 21
    "Invalid argument",                                   // 22
    "Too many open files in system",                      // 23
    "Too many open files",                                // 24
    "Inappropriate ioctl for device",                     // 25
    "Text file busy",                                     // 26
    "File too large",                                     // 27
    "No space left on device",                            // 28
    "Illegal seek",                                       // 29
    "Read-only file system",                              // 30
    "Too many links",                                     // 31
    "Broken pipe",                                        // 32
    "Numerical argument out of domain",                   // 33
    "Numerical result out of range",                      // 34
    "Resource deadlock avoided",                          // 35
    "File name too long",                                 // 36
    "No locks available",                                 // 37
    "Function not implemented",                           // 38
    "Directory not empty",                                // 39
    "Too many levels of symbolic links",                  // 40
    "Unknown error 41",                                   // 41
    "No message of desired type",                         // 42
    "Identifier removed",                                 // 43
    "Channel number out of range",                        // 44
    "Level 2 not synchronized",                           // 45
    "Level 3 halted",                                     // 46
    "Level 3 reset",                                      // 47
    "Link number out of range",                           // 48
    "Protocol driver not attached",                       // 49
    "No CSI structure available",                         // 50
    "Level 2 halted",                                     // 51
    "Invalid exchange",                                   // 52
    "Invalid request descriptor",                         // 53
    "Exchange full",                                      // 54
    "No anode",                                           // 55
    "Invalid request code",                               // 56
    "Invalid slot",                                       // 57
    "Unknown error 58",                                   // 58
    "Bad font file format",                               // 59
    "Device not a stream",                                // 60
    "No data available",                                  // 61
    "Timer expired",                                      // 62
    "Out of streams resources",                           // 63
    "Machine is not on the network",                      // 64
    "Package not installed",                              // 65
    "Object is remote",                                   // 66
    "Link has been severed",                              // 67
    "Advertise error",                                    // 68
    "Srmount error",                                      // 69
    "Communication error on send",                        // 70
    "Protocol error",                                     // 71
    "Multihop attempted",                                 // 72
    "RFS specific error",                                 // 73
    "Bad message",                                        // 74
    "Value too large for defined data type",              // 75
    "Name not unique on network",                         // 76
    "File descriptor in bad state",                       // 77
    "Remote address changed",                             // 78
    "Can not access a needed shared library",             // 79
    "Accessing a corrupted shared library",               // 80
    ".lib section in a.out corrupted",                    // 81
    "Attempting to link in too many shared libraries",    // 82
    "Cannot exec a shared library directly",              // 83
    "Invalid or incomplete multibyte or wide character",  // 84
    "Interrupted system call should be restarted",        // 85
    "Streams pipe error",                                 // 86
    "Too many users",                                     // 87
    "Socket operation on non-socket",                     // 88
    "Destination address required",                       // 89
    "Message too long",                                   // 90
    "Protocol wrong type for socket",                     // 91
    "Protocol not available",                             // 92
    "Protocol not supported",                             // 93
    "Socket type not supported",                          // 94
    "Operation not supported",                            // 95
    "Protocol family not supported",                      // 96
    "Address family not supported by protocol",           // 97
    "Address already in use",                             // 98
    "Cannot assign requested address",                    // 99
    "Network is down",                                    // 100
    "Network is unreachable",                             // 101
    "Network dropped connection on reset",                // 102
    "Software caused connection abort",                   // 103
    "Connection reset by peer",                           // 104
    "No buffer space available",                          // 105
    "Transport endpoint is already connected",            // 106
    "Transport endpoint is not connected",                // 107
    "Cannot send after transport endpoint shutdown",      // 108
    "Too many references: cannot splice",                 // 109
    "Connection timed out",                               // 110
    "Connection refused",                                 // 111
    "Host is down",                                       // 112
    "No route to host",                                   // 113
    "Operation already in progress",                      // 114
    "Operation now in progress",                          // 115
    "Stale file handle",                                  // 116
    "Structure needs cleaning",                           // 117
    "Not a XENIX named type file",                        // 118
    "No XENIX semaphores available",                      // 119
    "Is a named type file",                               // 120
    "Remote I/O error",                                   // 121
    "Disk quota exceeded",                                // 122
    "No medium found",                                    // 123
    "Wrong medium type",                                  // 124
    "Operation canceled",                                 // 125
    "Required key not available",                         // 126
    "Key has expired",                                    // 127
    "Key has been revoked",                               // 128
    "Key was rejected by service",                        // 129
    "Owner died",                                         // 130
    "State not recoverable",                              // 131
    "Operation not possible due to RF-kill",              // 132
    "Memory page has hardware error",                     // 133
    "Unknown error 134",                                  // 134
    "Unknown error 135",                                  // 135
    "Unknown error 136",                                  // 136
    "Unknown error 137",                                  // 137
    "Unknown error 138",                                  // 138
    "Unknown error 139",                                  // 139
    "Unknown error 140",                                  // 140
    "Unknown error 141",                                  // 141
    "Unknown error 142",                                  // 142
    "Unknown error 143",                                  // 143
    "Unknown error 144",                                  // 144
    "Unknown error 145",                                  // 145
    "Unknown error 146",                                  // 146
    "Unknown error 147",                                  // 147
    "Unknown error 148",                                  // 148
    "Unknown error 149",                                  // 149
    "Unknown error 150",                                  // 150
    "Unknown error 151",                                  // 151
    "Unknown error 152",                                  // 152
    "Unknown error 153",                                  // 153
    "Unknown error 154",                                  // 154
    "Unknown error 155",                                  // 155
    "Unknown error 156",                                  // 156
    "Unknown error 157",                                  // 157
    "Unknown error 158",                                  // 158
    "Unknown error 159",                                  // 159
    "Unknown error 160",                                  // 160
    "Unknown error 161",                                  // 161
    "Unknown error 162",                                  // 162
    "Unknown error 163",                                  // 163
    "Unknown error 164",                                  // 164
    "Unknown error 165",                                  // 165
    "Unknown error 166",                                  // 166
    "Unknown error 167",                                  // 167
    "Unknown error 168",                                  // 168
    "Unknown error 169",                                  // 169
    "Unknown error 170",                                  // 170
    "Unknown error 171",                                  // 171
    "Unknown error 172",                                  // 172
    "Unknown error 173",                                  // 173
    "Unknown error 174",                                  // 174
    "Unknown error 175",                                  // 175
    "Unknown error 176",                                  // 176
    "Unknown error 177",                                  // 177
    "Unknown error 178",                                  // 178
    "Unknown error 179",                                  // 179
    "Unknown error 180",                                  // 180
    "Unknown error 181",                                  // 181
    "Unknown error 182",                                  // 182
    "Unknown error 183",                                  // 183
    "Unknown error 184",                                  // 184
    "Unknown error 185",                                  // 185
    "Unknown error 186",                                  // 186
    "Unknown error 187",                                  // 187
    "Unknown error 188",                                  // 188
    "Unknown error 189",                                  // 189
    "Unknown error 190",                                  // 190
    "Unknown error 191",                                  // 191
    "Unknown error 192",                                  // 192
    "Unknown error 193",                                  // 193
    "Unknown error 194",                                  // 194
    "Unknown error 195",                                  // 195
    "Unknown error 196",                                  // 196
    "Unknown error 197",                                  // 197
    "Unknown error 198",                                  // 198
    "Unknown error 199",                                  // 199
    "Unknown error 200",                                  // 200
    "Unknown error 201",                                  // 201
    "Unknown error 202",                                  // 202
    "Unknown error 203",                                  // 203
    "Unknown error 204",                                  // 204
    "Unknown error 205",                                  // 205
    "Unknown error 206",                                  // 206
    "Unknown error 207",                                  // 207
    "Unknown error 208",                                  // 208
    "Unknown error 209",                                  // 209
    "Unknown error 210",                                  // 210
    "Unknown error 211",                                  // 211
    "Unknown error 212",                                  // 212
    "Unknown error 213",                                  // 213
    "Unknown error 214",                                  // 214
    "Unknown error 215",                                  // 215
    "Unknown error 216",                                  // 216
    "Unknown error 217",                                  // 217
    "Unknown error 218",                                  // 218
    "Unknown error 219",                                  // 219
    "Unknown error 220",                                  // 220
    "Unknown error 221",                                  // 221
    "Unknown error 222",                                  // 222
    "Unknown error 223",                                  // 223
    "Unknown error 224",                                  // 224
    "Unknown error 225",                                  // 225
    "Unknown error 226",                                  // 226
    "Unknown error 227",                                  // 227
    "Unknown error 228",                                  // 228
    "Unknown error 229",                                  // 229
    "Unknown error 230",                                  // 230
    "Unknown error 231",                                  // 231
    "Unknown error 232",                                  // 232
    "Unknown error 233",                                  // 233
    "Unknown error 234",                                  // 234
    "Unknown error 235",                                  // 235
    "Unknown error 236",                                  // 236
    "Unknown error 237",                                  // 237
    "Unknown error 238",                                  // 238
    "Unknown error 239",                                  // 239
    "Unknown error 240",                                  // 240
    "Unknown error 241",                                  // 241
    "Unknown error 242",                                  // 242
    "Unknown error 243",                                  // 243
    "Unknown error 244",                                  // 244
    "Unknown error 245",                                  // 245
    "Unknown error 246",                                  // 246
    "Unknown error 247",                                  // 247
    "Unknown error 248",                                  // 248
    "Unknown error 249",                                  // 249
    "Unknown error 250",                                  // 250
    "Unknown error 251",                                  // 251
    "Unknown error 252",                                  // 252
    "Unknown error 253",                                  // 253
    "Unknown error 254",                                  // 254
    "Unknown error 255",                                  // 255
    nullptr,
}};
