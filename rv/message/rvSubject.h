#pragma once

#include "platform/Export.h"

/// Encoded subjects: a 2-byte big-endian length (itself included), a count of elements, and for
/// each element a byte with its length + 2, its characters and a zero byte.
///
/// Functions that take an encoded subject trust its length word and read nothing past it. Check
/// untrusted bytes first with `kvx::SubjectView::parse` (SubjectView.h). Input may lie in the
/// output's memory; a failed call writes nothing.

/// Encodes dotted text: 1 to 102 elements of 1 to 250 characters. Returns the encoded length, or -1
/// when the text breaks a rule or the result exceeds `capacity` (never taken as more than 1,000).
KVX_API int rvSubject_FromText(void* out, unsigned capacity, const char* text);

/// Writes the dotted text. Returns `out`, or null when the encoded length exceeds `capacity` or the
/// elements do not fill it.
KVX_API char* rvSubject_ToText(char* out, unsigned capacity, const void* encoded);

/// The encoded length in bytes.
KVX_API unsigned rvSubject_Length(const void* encoded);

/// The number of elements.
KVX_API unsigned rvSubject_Count(const void* encoded);

/// Element `i`, counted from 1, as zero-terminated text inside `encoded`; null past the end and for
/// 0.
KVX_API const char* rvSubject_Element(const void* encoded, unsigned i);

/// Appends one element. Returns the new length; -1, with nothing changed, when it would reach
/// `capacity` or `text` is not a valid element.
KVX_API int rvSubject_AppendElement(void* encoded, unsigned capacity, const char* text);

/// Removes the last element. Returns the new length, or -1 for an empty subject.
KVX_API int rvSubject_RemoveLast(void* encoded);

/// Makes an empty subject. Returns 3, or -1 when `capacity` is less.
KVX_API int rvSubject_InitEmpty(void* out, unsigned capacity);
