/* sign_file SERIAL PASSWORD FILE SIGNATURE: signs a file with the key of a medium.
 *
 *   cc sign_file.c $(pkg-config --cflags --libs euscp) -o sign_file */
#include <EUSignCP.h>
#include <stdio.h>
#include <string.h>

static DWORD sign(EU_KEY_MEDIA* medium, char** arguments) {
    char serial[EU_DESCRIPTION_SIZE] = "";
    DWORD error = EU_ERROR_NONE;
    for (; strcmp(serial, arguments[1]) != 0 && error == EU_ERROR_NONE; ++medium->dwDevIndex)
        error = EUEnumKeyMediaDevices(medium->dwTypeIndex, medium->dwDevIndex, serial);
    --medium->dwDevIndex;
    snprintf(medium->szPassword, sizeof medium->szPassword, "%s", arguments[2]);

    void *context = NULL, *key = NULL;
    EU_CERT_OWNER_INFO owner;
    if (error == EU_ERROR_NONE) error = EUCtxCreate(&context);
    if (error == EU_ERROR_NONE) error = EUCtxReadPrivateKey(context, medium, &key, &owner);
    if (error == EU_ERROR_NONE) {
        EUCtxFreeCertOwnerInfo(context, &owner);
        error = EUCtxSignFile(key, EU_SIGN_ALGORITHM_TOKEN, arguments[3], 1, 0, arguments[4]);
        EUCtxFreePrivateKey(key);
    }
    EUCtxFree(context);
    return error;
}

int main(int count, char** arguments) {
    if (count != 5) return 2;
    EU_KEY_MEDIA medium = {0, 0, ""};
    DWORD error = EUInitialize();
    if (error == EU_ERROR_NONE) error = sign(&medium, arguments);
    if (error != EU_ERROR_NONE) fprintf(stderr, "%s\n", EUGetErrorLangDesc(error, EU_LANG_ENGLISH));
    EUFinalize();
    return error != EU_ERROR_NONE;
}
