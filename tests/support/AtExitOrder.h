// In which order the static objects of a test program die.
#pragma once

#include <cstddef>
#include <initializer_list>

/**
 * When an object's destructor was registered, counted from the program's first; the later goes
 * first. A program that links AtExitOrder.cpp counts them in the C library's place.
 * @return SIZE_MAX for an object that has no such destructor
 */
size_t placeAtExit(const void* pObject);

/** Whether all of them die after an object. */
bool outlive(std::initializer_list<const void*> listObject, const void* pObject);
