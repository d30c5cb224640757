// Fine over-segmentation of a colour image: conversion to CIELab, light
// smoothing, clustering of the pixels around a regular grid of seeds (SLIC)
// and splitting of the clusters into 4-connected pieces.
#pragma once

#include "CMatrix.h"
#include "CTensor.h"

namespace NSegment {

// CIELab (sRGB primaries, D65 white) of an RGB tensor with byte values 0..255
// in layers 0, 1, 2; the result has layers L, a, b.
CTensor<float> toLab(const CTensor<float>& aRgb);

// Every layer smoothed with the binomial kernel (1 4 6 4 1) / 16 along x and
// y; border samples are repeated.
CTensor<float> smooth(const CTensor<float>& aImage);

// Clusters the pixels of aLab around about aSeeds grid seeds by colour and
// position. aCompactness weighs one grid step of distance against one unit
// of colour difference. Every pixel receives a cluster index; a cluster need
// not be connected.
CMatrix<int> slic(const CTensor<float>& aLab, int aSeeds, float aCompactness, int aIterations);

// Numbers the 4-connected pieces of equal labels 0, 1, ... in the scan order
// of their first pixel and returns their count.
int connectedComponents(const CMatrix<int>& aLabels, CMatrix<int>& aComponents);

}  // namespace NSegment
