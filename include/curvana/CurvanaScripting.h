/*
 * CurvanaScripting.h: the scripting vocabulary of the Curvana filter module.
 *
 * The module reads its settings from the descriptor a host passes in and
 * records them in the descriptor it hands back (see CvDescriptorSuite5 in
 * CurvanaPlugin.h). A host that builds a descriptor itself, from a command
 * line say, uses the same keys and enumerators. Every value is a
 * four-character code (CV_FOURCC).
 */
#ifndef CURVANA_SCRIPTING_H
#define CURVANA_SCRIPTING_H

#include "curvana/CurvanaPlugin.h"

/* The filter's event: the class of the actions it records. */
enum { cvEventCurvana = CV_FOURCC('c', 'v', 'n', 'C') };

/* Descriptor keys and the type of their values. */
enum {
    cvKeyActionVersion = CV_FOURCC('a', 'c', 't', 'V'),    /* integer, written as 0, ignored */
    cvKeyConstraintData = CV_FOURCC('c', 'n', 's', 'D'),   /* raw data: a constraint file's bytes */
    cvKeyProjectionModel = CV_FOURCC('p', 'r', 'j', 'M'),  /* enumerated, of this type */
    cvKeyRegularizerModel = CV_FOURCC('r', 'e', 'g', 'M'), /* enumerated, of this type */
    cvKeyFocalLength = CV_FOURCC('f', 'o', 'c', 'L'),      /* float, pixels */
    cvKeyPhysicalFocalLength = CV_FOURCC('P', 'h', 'y', 'F'), /* float, millimetres */
    cvKeyCropFactor = CV_FOURCC('C', 'r', 'p', 'F'),          /* float */
    cvKeyScale = CV_FOURCC('i', 'm', 'g', 'S'),               /* integer, percent */
    cvKeyOffsetX = CV_FOURCC('i', 'm', 'g', 'X'),             /* float */
    cvKeyOffsetY = CV_FOURCC('i', 'm', 'g', 'Y'),             /* float */
    /* boolean: frame the picture on the largest rectangle of the output's
     * aspect that holds no empty pixel (replaces the scale) */
    cvKeyCropToContent = CV_FOURCC('i', 'm', 'g', 'C')
};

/* Suggested lines. A descriptor passed in may ask the filter to find the
 * photo's straight scene edges and add them as line constraints (after any
 * "cnsD" constraints) before it applies the correction. The result
 * descriptor then carries them in "cnsD" and says how many it added of each
 * kind. These keys are never recorded in an action. */
enum {
    cvKeySuggestLines = CV_FOURCC('s', 'u', 'g', 'L'), /* integer: at most this many; > 0 asks */
    cvKeySuggestVerticalsOnly = CV_FOURCC('s', 'u', 'g', 'V'), /* boolean: only upright edges */
    cvKeySuggestHorizontals = CV_FOURCC('s', 'u', 'g', 'H'),   /* boolean: level edges Horizontal */
    cvKeySuggestOnly =
        CV_FOURCC('s', 'u', 'g', 'O'), /* boolean: hand the lines back, render nothing */
    cvKeySuggestedVertical = CV_FOURCC('s', 'g', 'n', 'V'),   /* integer, in the result */
    cvKeySuggestedHorizontal = CV_FOURCC('s', 'g', 'n', 'H'), /* integer, in the result */
    cvKeySuggestedUnfixed = CV_FOURCC('s', 'g', 'n', 'U')     /* integer, in the result */
};

/* Enumerators of cvKeyProjectionModel. Panorama is read as Fisheye and never
 * written. */
enum {
    cvProjectionFisheye = CV_FOURCC('f', 'i', 's', 'P'),
    cvProjectionPerspective = CV_FOURCC('p', 'e', 'r', 'P'),
    cvProjectionPanorama = CV_FOURCC('p', 'a', 'n', 'P'),
    cvProjectionFullSpherical = CV_FOURCC('f', 'u', 's', 'P'),
    cvProjectionAuto = CV_FOURCC('a', 'u', 't', 'P')
};

/* Enumerators of cvKeyRegularizerModel. */
enum {
    cvRegularizerStereographic = CV_FOURCC('s', 't', 'e', 'R'),
    cvRegularizerMercator = CV_FOURCC('m', 'e', 'r', 'R'),
    cvRegularizerPanini = CV_FOURCC('p', 'a', 'n', 'R'),
    cvRegularizerAuto = CV_FOURCC('a', 'u', 't', 'R')
};

#endif /* CURVANA_SCRIPTING_H */
