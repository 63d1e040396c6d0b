/**
 * \file zep_channel.h
 * \brief Channels of named containers, sent with ZEP_ECI_Execute_Channel() instead of a COMMAREA.
 *
 * Channels live in the process, not on a connection: they talk to no Gateway and never block on the
 * network. Any thread may use any channel; a call on a channel that an ECI call holds waits until that
 * call's reply is in (synchronous) or collected (asynchronous).
 */
#ifndef ZEP_CHANNEL_H
#define ZEP_CHANNEL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * \name Container types
 * @{
 */
#define ECI_BIT   1   /**< binary data, sent as it is; the container's CCSID is 0 */
#define ECI_CHAR  2   /**< character data in the container's CCSID */
/** @} */

/** \cond */
#ifndef ZEP_CHANNEL_TOKEN_DEFINED
#define ZEP_CHANNEL_TOKEN_DEFINED
/** \endcond */
/** \brief A channel: a named set of containers (opaque). Made by ECI_createChannel(). */
typedef struct Channel Channel;             /* opaque: the channel token */
/** \cond */
#endif
/** \endcond */

/** \brief What ECI_getContainerInfo(), ECI_getFirstContainer() and ECI_getNextContainer() report. */
#pragma pack(push, 1)
typedef struct ContainerInfo {
    char     name[17];      /**< the container's name, NUL-terminated */
    int32_t  type;          /**< ::ECI_BIT or ::ECI_CHAR */
    int32_t  ccsid;         /**< the CCSID of an ::ECI_CHAR container, else 0 */
    uint32_t dataLength;    /**< the bytes of data it holds */
} ContainerInfo;                             /* 29 bytes */
#pragma pack(pop)

/**
 * \brief Creates an empty channel.
 * \param name the channel's name, 1 to 16 characters
 * \param tokPtr receives the channel
 * \return ::ECI_NO_ERROR, ::ECI_ERR_NULLCHANNELPTR, ::ECI_ERR_INVALID_NAME, ::ECI_ERR_MEMORY_SHORTAGE,
 *         ::ECI_ERR_CHANNELLOCKFAIL or ::ECI_ERR_LOCKFAIL
 */
int   ECI_createChannel(const char* name, Channel** tokPtr);
/**
 * \brief Deletes a channel with its containers and sets `*tokPtr` to NULL.
 *
 * Waits until an ECI call that holds the channel is done with it.
 * \param tokPtr the address of the caller's channel variable
 * \return ::ECI_NO_ERROR, ::ECI_ERR_NULLCHANNELPTR, ::ECI_ERR_INVALID_CHANNEL or ::ECI_ERR_SYSTEM_ERROR
 */
int   ECI_deleteChannel(Channel** tokPtr);
/**
 * \brief Deletes every channel of the process, without waiting for calls that hold one.
 *
 * Call it only when no thread uses a channel any more: every channel token becomes invalid.
 * \return ::ECI_NO_ERROR or ::ECI_ERR_LOCKFAIL
 */
int   ECI_deleteAllChannels(void);
/**
 * \brief Copies the channel's name.
 * \param chanTok the channel
 * \param nameBuffer 17 bytes: the name, NUL-terminated
 * \return ::ECI_NO_ERROR, ::ECI_ERR_INVALID_CHANNEL or ::ECI_ERR_NULLPTR
 */
int   ECI_getChannelName(Channel* chanTok, char* nameBuffer);   /* 17 bytes */
/**
 * \brief Writes every channel and its containers to the trace.
 * \return ::ECI_NO_ERROR or ::ECI_ERR_LOCKFAIL
 */
int   ZEP_ECI_dumpChannels(void);
/**
 * \brief Adds a container holding a copy of `data`.
 * \param chanTok the channel
 * \param name the container's name, 1 to 16 characters, new in the channel
 * \param type ::ECI_BIT or ::ECI_CHAR
 * \param ccsid for ::ECI_CHAR, the data's CCSID; 0 takes the channel's, which the locale sets when unset
 * \param data the bytes to copy; may be NULL when `dataLength` is 0
 * \param dataLength the bytes of `data`
 * \return ::ECI_NO_ERROR or a channel and container return code
 */
int   ECI_createContainer(Channel* chanTok, const char* name, int type, int ccsid,
          const void* data, unsigned long dataLength);
/**
 * \brief Removes a container from the channel.
 * \param chanTok the channel
 * \param name the container's name
 * \return ::ECI_NO_ERROR, ::ECI_ERR_CONTAINER_NOTFOUND or another channel and container return code
 */
int   ECI_deleteContainer(Channel* chanTok, const char* name);
/**
 * \brief Copies up to `length` bytes of a container's data, from byte `offset` on.
 *
 * Reading at or past the end copies nothing and succeeds; read a large container in pieces with growing
 * offsets.
 * \param chanTok the channel
 * \param name the container's name
 * \param buffer receives the bytes
 * \param length the most bytes to copy
 * \param offset the first byte to copy
 * \param bytesReadPtr receives the bytes copied; may be NULL
 * \return ::ECI_NO_ERROR, ::ECI_ERR_CONTAINER_NOTFOUND or another channel and container return code
 */
int   ECI_getContainerData(Channel* chanTok, const char* name, void* buffer,
          unsigned long length, unsigned long offset, unsigned long* bytesReadPtr);
/**
 * \brief Replaces a container's data with a copy of `data`.
 * \param chanTok the channel
 * \param name the container's name
 * \param data the new bytes; may be NULL when `dataLength` is 0
 * \param dataLength the bytes of `data`
 * \return ::ECI_NO_ERROR, ::ECI_ERR_CONTAINER_NOTFOUND or another channel and container return code
 */
int   ECI_setContainerData(Channel* chanTok, const char* name, const void* data,
          unsigned long dataLength);
/**
 * \brief Describes one container.
 * \param chanTok the channel
 * \param name the container's name
 * \param infoPtr receives the description
 * \return ::ECI_NO_ERROR, ::ECI_ERR_CONTAINER_NOTFOUND, ::ECI_ERR_NULLINFOPTR or another channel and
 *         container return code
 */
int   ECI_getContainerInfo(Channel* chanTok, const char* name, ContainerInfo* infoPtr);
/**
 * \brief Starts walking the channel's containers: describes the first one.
 * \param chanTok the channel
 * \param infoPtr receives the description
 * \return ::ECI_NO_ERROR, ::ECI_ERR_ENDOFCONTAINERS when the channel is empty, or another channel and
 *         container return code
 */
int   ECI_getFirstContainer(Channel* chanTok, ContainerInfo* infoPtr);
/**
 * \brief Describes the next container of the walk; after the last it reports the end, then starts again.
 * \param chanTok the channel
 * \param infoPtr receives the description
 * \return ::ECI_NO_ERROR, ::ECI_ERR_ENDOFCONTAINERS after the last container, or another channel and
 *         container return code
 */
int   ECI_getNextContainer(Channel* chanTok, ContainerInfo* infoPtr);

#ifdef __cplusplus
}
#endif

#endif
